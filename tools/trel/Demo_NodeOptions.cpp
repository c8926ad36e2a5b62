#include "Demo_NodeOptions.h"

#include "CommonOptions.h"

#include <trel/Sys_Socket.h>

#include <CLI/CLI.hpp>

namespace {

constexpr const char* kCommand = "demo-node";

} // namespace

std::vector<std::string> Demo_NodeOptions::ToArguments(const std::string& program) const {
  std::vector<std::string> arguments = {program,
                                        kCommand,
                                        "--address=" + Sys_Socket::DecodeIPAddress(address),
                                        "--master=" + Sys_Socket::DecodeIPAddress(master),
                                        "--port=" + std::to_string(port),
                                        "--name=" + name,
                                        "--offset=" + std::to_string(offsetMilliseconds),
                                        "--drift=" + std::to_string(driftPPM),
                                        "--satellites=" + std::to_string(satellites),
                                        "--rounds=" + std::to_string(rounds),
                                        "--coordinator=" + std::to_string(coordinator)};
  if (legacy) {
    arguments.emplace_back("--legacy");
  }
  if (tellsClock) {
    arguments.emplace_back("--tell-clock");
  }
  if (!captureFile.empty()) {
    arguments.push_back("--pcap=" + captureFile);
  }
  return arguments;
}

CLI::App* Demo_NodeOptions::AddTo(CLI::App& program, Demo_NodeOptions& options) {
  CLI::App* const command = program.add_subcommand(kCommand);
  command->group(""); // not listed in the help
  AddAddressOption(*command, "--address", options.address)->required();
  AddAddressOption(*command, "--master", options.master)->required();
  command->add_option("--port", options.port)->required();
  command->add_option("--name", options.name)->required();
  command->add_option("--offset", options.offsetMilliseconds);
  command->add_option("--drift", options.driftPPM);
  command->add_option("--satellites", options.satellites)->required();
  command->add_option("--rounds", options.rounds)->required();
  command->add_option("--coordinator", options.coordinator)->required();
  command->add_flag("--legacy", options.legacy);
  command->add_flag("--tell-clock", options.tellsClock);
  command->add_option("--pcap", options.captureFile);
  return command;
}
