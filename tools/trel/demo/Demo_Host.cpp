#include "tools/trel/demo/Demo_Host.h"

#include <trel/Sys_Socket.h>

#include <filesystem>
#include <utility>
#include <vector>

#include <unistd.h>

namespace {

std::vector<std::string> ArgumentsOf(const Demo_Host::Options& options) {
  std::vector<std::string> arguments = {std::filesystem::read_symlink("/proc/self/exe"),
                                        "host",
                                        "--json",
                                        "--name=" + options.name,
                                        "--address=" + Sys_Socket::DecodeIPAddress(options.address),
                                        "--port=" + std::to_string(options.port),
                                        "--clock-offset=" + std::to_string(options.offsetMilliseconds),
                                        "--clock-drift=" + std::to_string(options.driftPPM),
                                        "--parent=" + std::to_string(getpid())};
  if (options.isMaster) {
    arguments.insert(arguments.end(), {"--master", "--max-satellites=" + std::to_string(options.satellites)});
  } else {
    arguments.insert(arguments.end(), {"--satellite", "--connect=" + Sys_Socket::DecodeIPAddress(options.master)});
  }
  if (options.tellsClock) {
    arguments.emplace_back("--clock-samples");
  }
  if (!options.captureFile.empty()) {
    arguments.push_back("--pcap=" + options.captureFile);
  }
  return arguments;
}

} // namespace

Demo_Host::Demo_Host(Options hostOptions)
    : options(std::move(hostOptions)), address(Sys_Socket::DecodeIPAddress(options.address)),
      process(ArgumentsOf(options)) {}
