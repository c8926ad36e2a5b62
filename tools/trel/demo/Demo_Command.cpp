#include "tools/trel/Commands.h"
#include "tools/trel/common/CommonOptions.h"
#include "tools/trel/common/ExitStatus.h"
#include "tools/trel/common/Output_File.h"
#include "tools/trel/demo/Demo_Coordinator.h"
#include "tools/trel/report/Report_Page.h"

#include <CLI/CLI.hpp>

#include <iostream>
#include <memory>

namespace {

// Before the demonstration runs, for nothing else is as annoying afterwards.
std::unique_ptr<Output_File> Opened(const std::string& file) {
  return file.empty() ? nullptr : std::make_unique<Output_File>(file);
}

int RunDemo(Demo_Coordinator::Options options, const std::string& jsonFile, const std::string& reportFile) {
  const std::unique_ptr<Output_File> json = Opened(jsonFile);
  const std::unique_ptr<Output_File> report = Opened(reportFile);
  options.reports = report != nullptr;
  Demo_Coordinator coordinator(options, std::cout);
  const int exitStatus = coordinator.Run();
  coordinator.Results().PrintTable(std::cout);
  if (json != nullptr) {
    coordinator.Results().WriteJson(*json);
    json->Close();
  }
  if (report != nullptr) {
    Report_WritePage(*report, coordinator.Report());
    report->Close();
  }
  return exitStatus;
}

} // namespace

void AddDemoCommand(CLI::App& program, int& exitStatus) {
  const auto options = std::make_shared<Demo_Coordinator::Options>();
  const auto jsonFile = std::make_shared<std::string>();
  const auto reportFile = std::make_shared<std::string>();
  CLI::App* const demo = program.add_subcommand(
      "demo", "Shows several systems on this machine link, correlate their clocks and start together");
  Limit(demo->add_option("--satellites", options->satellites, "Number of satellites, 1 to 64 [3]")->type_name("N"), 1,
        64);
  Limit(demo->add_option("--rounds", options->rounds, "How often they start together, 1 to 1000 times [5]")
            ->type_name("N"),
        1, 1000);
  AddPortOption(*demo, "--port", options->port, "Communication port [28282, or a free one when that is taken]");
  demo->add_flag("--legacy", options->legacy, "Use the legacy command numbering");
  demo->add_option("--pcap", options->captureFile,
                   "Write what the master sends and receives to a capture file for a network analyser")
      ->type_name("FILE");
  demo->add_option("--json", *jsonFile, "Write the results to a file")->type_name("FILE");
  demo->add_option("--report", *reportFile, "Write a page with pictures to a file")->type_name("FILE.html");
  demo->callback(
      [options, jsonFile, reportFile, &exitStatus] { exitStatus = RunDemo(*options, *jsonFile, *reportFile); });
}
