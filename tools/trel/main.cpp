#include "tools/trel/Commands.h"
#include "tools/trel/common/ExitStatus.h"
#include "tools/trel/common/Output_Standard.h"

#include <trel/Cmn_Assert.h>

#include <CLI/CLI.hpp>

#include <exception>
#include <iostream>
#include <string>
#include <string_view>

namespace {

constexpr void (*kCommands[])(CLI::App& program, int& exitStatus) = {
    AddHostCommand,   AddWatchCommand,    AddDiscoverCommand, AddDoctorCommand, AddSecretCommand, AddDemoCommand,
    AddReportCommand, AddSimulateCommand, AddCommandsCommand, AddEncodeCommand, AddDecodeCommand};

constexpr const char* kExitStatusHelp = "Exit status: 0 everything happened; 1 something failed, the output names it;\n"
                                        "2 wrong command line; 128 + n ended by signal n (130: Ctrl-C).";

/// Where in the library a fault was found does not help who uses the program.
void ReportFault(const char* text, std::int32_t /*line*/) {
  const std::string_view whole(text);
  Output_Standard::Say(std::string(whole.substr(0, whole.find("@$^$@"))));
}

int Run(int argc, char** argv) {
  try {
    CLI::App program("Links audio workstations on one network so that they start together.", "trel");
    program.set_version_flag("--version", "trel " TREL_VERSION);
    program.footer(kExitStatusHelp);
    int exitStatus = kExitSuccess;
    for (const auto& addCommand : kCommands) {
      addCommand(program, exitStatus);
    }
    try {
      program.parse(argc, argv);
      // Not left to the parser, which would say this, and no more, of an unknown one.
      if (program.get_subcommands().empty()) {
        throw CLI::RequiredError("A command");
      }
    } catch (const CLI::ParseError& error) {
      return program.exit(error) == 0 ? kExitSuccess : kExitUsage;
    }
    return exitStatus;
  } catch (const std::exception& error) {
    std::cout.flush();
    Output_Standard::Say(error.what());
    return kExitFailure;
  }
}

} // namespace

int main(int argc, char** argv) {
  OpenStandardDescriptors();
  Cmn_Assert::SetSink(&ReportFault);
  Output_Standard output;
  return output.Finish(Run(argc, argv));
}
