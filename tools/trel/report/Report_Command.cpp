#include "tools/trel/Commands.h"
#include "tools/trel/common/ExitStatus.h"
#include "tools/trel/report/Report_Collector.h"
#include "tools/trel/report/Report_Page.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

namespace {

struct Options {
  std::string recording;
  std::string page;
};

int RunReport(const Options& options) {
  std::ifstream recording(options.recording);
  if (!recording) {
    throw std::runtime_error("cannot read " + options.recording + ": " + std::generic_category().message(errno));
  }
  Report_Collector collector;
  collector.ReadFrom(recording);
  if (collector.IsEmpty()) {
    throw std::runtime_error(options.recording + " is no recording: it has no line with an event");
  }
  if (collector.LinesPassedOver() != 0) {
    std::cerr << "note: " << collector.LinesPassedOver() << " lines are no events and were passed over\n";
  }
  const std::string page = options.page.empty() ? options.recording + ".html" : options.page;
  Report_WritePageTo(page, collector.Data());
  std::cout << page << '\n';
  return kExitSuccess;
}

} // namespace

void AddReportCommand(CLI::App& program, int& exitStatus) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command =
      program.add_subcommand("report", "Makes an HTML page with pictures from a recording of a host");
  command->add_option("recording", options->recording, "What trel host --record has written")
      ->type_name("RECORDING")
      ->required();
  command->add_option("page", options->page, "The page to write [RECORDING.html]")->type_name("PAGE");
  command->callback([options, &exitStatus] { exitStatus = RunReport(*options); });
}
