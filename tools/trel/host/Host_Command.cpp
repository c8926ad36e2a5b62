#include "tools/trel/Commands.h"
#include "tools/trel/common/ExitStatus.h"
#include "tools/trel/host/Host_EventSink.h"
#include "tools/trel/host/Host_Events.h"
#include "tools/trel/host/Host_JsonSink.h"
#include "tools/trel/host/Host_Node.h"
#include "tools/trel/host/Host_Options.h"
#include "tools/trel/host/Host_RecordSink.h"
#include "tools/trel/host/Host_WordsSink.h"

#include <trel/SPSStartupOption.h>

#include <CLI/CLI.hpp>

#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr const char* kHostFooter =
    "Type commands, one a line; help lists them. They may come from a file or a pipe too: then lines that\n"
    "start with # are comments, the end of the input ends the program, and the exit status is 1 when a\n"
    "command could not be carried out. Ctrl-C leaves the link in good order.\n"
    "\n"
    "Examples:\n"
    "  trel host --master --name Stage              on one machine\n"
    "  trel host --satellite --name \"Machine room\"  on each of the others: it searches for the master\n"
    "  trel host --satellite --connect 192.168.1.10 the same, when the master is not found by itself\n"
    "\n"
    "  printf 'wait linked 2\\nwait locked\\nprime\\nwait primed\\nstart in 500ms\\nwait played\\n' |\n"
    "    trel host --master --json                  a script: two satellites start with the master\n"
    "\n"
    "All systems on one machine:\n"
    "  trel host --master --address 127.0.0.2\n"
    "  trel host --satellite --address 127.0.0.3 --connect 127.0.0.2";

int RunHost(const Host_Options& options) {
  if (options.maxSatellites != 0) {
    SPSSetStartupOption("MaxNumberSatellites", std::to_string(options.maxSatellites).c_str());
  }
  options.trial.Prepare();
  options.engine.Prepare();
  std::vector<std::unique_ptr<Host_EventSink>> sinks;
  if (options.json) {
    sinks.push_back(std::make_unique<Host_JsonSink>(std::cout));
  } else {
    sinks.push_back(std::make_unique<Host_WordsSink>(options.verbose));
  }
  if (!options.recording.empty()) {
    sinks.push_back(std::make_unique<Host_RecordSink>(options.recording));
  }
  Host_Events events(std::move(sinks));
  const int exitStatus = Host_Node(options, events).Run();
  return !events.Finish() && exitStatus == kExitSuccess ? kExitFailure : exitStatus;
}

} // namespace

void AddHostCommand(CLI::App& program, int& exitStatus) {
  const auto options = std::make_shared<Host_Options>();
  CLI::App* const host = program.add_subcommand("host", "Runs a system of the link that you command by hand");
  options->AddTo(*host);
  host->footer(kHostFooter);
  host->callback([options, &exitStatus] {
    options->Check();
    exitStatus = RunHost(*options);
  });
}
