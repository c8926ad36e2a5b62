#include "tools/trel/Commands.h"
#include "tools/trel/common/CommonOptions.h"
#include "tools/trel/common/ExitStatus.h"
#include "tools/trel/watch/Watch_Session.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace {

constexpr double kShortestInterval = 0.25; // the host gives no more
constexpr double kLongestInterval = 3600;

constexpr const char* kWatchFooter =
    "Watches a trel host, those of trel demo among them, that runs on this machine as the same user. With several,\n"
    "choose one by address or process. q or Ctrl-C ends the screen.\n"
    "\n"
    "When the output is no terminal, or with --interval, a block of lines is written every so often instead.\n"
    "\n"
    "Exit status: 0 ended by the user, or --once has been answered; 1 no host to watch, or it has ended, or the output "
    "cannot be written; 2 wrong\n"
    "command line.\n"
    "\n"
    "Examples:\n"
    "  trel watch                                 is it in sync, how do you know, why not?\n"
    "  trel watch --address 192.168.1.11          one of several hosts on this machine\n"
    "  trel watch --once --json | jq .in_sync     for a script: \"yes\", \"soon\" or \"no\"\n"
    "  trel watch --interval 10 >> link.log       keep a log";

} // namespace

void AddWatchCommand(CLI::App& program, int& exitStatus) {
  const auto options = std::make_shared<Watch_Session::Options>();
  CLI::App* const watch = program.add_subcommand("watch", "Looks into a running host: in sync? how well? why not?");
  AddAddressOption(*watch, "--address", options->address, "Watch the host with this address");
  watch->add_option("--pid", options->process, "Watch the host that is this process")->type_name("PROCESS");
  watch->add_flag("--once", options->once, "Show it once and end");
  watch->add_flag("--json", options->json, "Write one JSON object for each refresh");
  watch->add_option("--interval", options->interval, "Seconds between two blocks or objects, 0.25 to 3600 [1]")
      ->type_name("SECONDS")
      ->check(CLI::Range(kShortestInterval, kLongestInterval).description(""));
  watch->footer(kWatchFooter);
  watch->callback([options, &exitStatus] { exitStatus = Watch_Session(*options).Run(); });
}
