#include "tools/trel/Commands.h"
#include "tools/trel/common/EngineOptions.h"
#include "tools/trel/common/ExitStatus.h"
#include "tools/trel/doctor/Doctor_Checks.h"
#include "tools/trel/doctor/Doctor_Findings.h"

#include <CLI/CLI.hpp>

#include <iostream>
#include <memory>

namespace {

struct DoctorOptions {
  EngineOptions engine;
  bool json = false;
};

constexpr const char* kDoctorFooter =
    "Looks at the adaptors, the ports, broadcast, the other systems, the clock and the load of this machine, and\n"
    "says what to change. Start the hosts on the other systems first; a host may run here too.\n"
    "\n"
    "Exit status: 0 all is well, perhaps with notices; 1 a problem was found; 2 wrong command line.\n"
    "\n"
    "Fields of --json, one object a line: check (adaptor, ports, broadcast, systems, secret, numbering,\n"
    "discovery, engine, clock, timer, load), status (ok, notice, problem), text, advice.\n"
    "\n"
    "Examples:\n"
    "  trel doctor                                    why do the systems not find each other?\n"
    "  trel doctor --address 192.168.1.10             on a machine with several networks\n"
    "  trel doctor --json | grep '\"problem\"'          for a script";

int RunDoctor(const DoctorOptions& options) {
  options.engine.Prepare();
  Doctor_Findings findings(options.json);
  Doctor_Checks(options.engine, findings).Run();
  if (!options.json) {
    const int problems = findings.Problems();
    std::cout << '\n'
              << (problems == 0   ? std::string("No problem was found.")
                  : problems == 1 ? std::string("One problem was found.")
                                  : std::to_string(problems) + " problems were found.")
              << '\n';
  }
  return findings.Problems() == 0 ? kExitSuccess : kExitFailure;
}

} // namespace

void AddDoctorCommand(CLI::App& program, int& exitStatus) {
  const auto options = std::make_shared<DoctorOptions>();
  CLI::App* const doctor = program.add_subcommand("doctor", "Finds out why systems do not link or start together");
  options->engine.AddTo(*doctor);
  options->engine.AddPortTo(*doctor);
  doctor->add_flag("--legacy", options->engine.legacy, "The systems use the legacy command numbering");
  doctor->add_flag("--json", options->json, "Print one JSON object for each finding");
  doctor->footer(kDoctorFooter);
  doctor->callback([options, &exitStatus] { exitStatus = RunDoctor(*options); });
}
