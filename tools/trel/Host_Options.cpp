#include "Host_Options.h"

#include <trel/Sys_Socket.h>
#include <trel/TCPE_System.h>

#include <CLI/CLI.hpp>

#include <limits>
#include <stdexcept>

namespace {

constexpr std::int32_t kMaxPort = 65535;
constexpr std::int32_t kMostSatellites = 128;

void ParseMaster(const std::string& text, std::uint32_t& address) {
  if (text == "auto") {
    address = 0;
  } else if (!Sys_Socket::EncodeIPAddress(text.c_str(), &address)) {
    throw CLI::ValidationError("--connect", text + " is no IPv4 address; write one like 192.168.1.10, or auto");
  }
}

void CheckName(const std::string& name) {
  if (name.empty() || name.size() >= TCPE_System::kSystemNameSize) {
    throw CLI::ValidationError("--name",
                               "a name has 1 to " + std::to_string(TCPE_System::kSystemNameSize - 1) + " characters");
  }
}

} // namespace

void Host_Options::AddTo(CLI::App& command) {
  CLI::Option_group* const role = command.add_option_group("role", "What this system is in the link; one of");
  CLI::Option* const master = role->add_flag("--master", isMaster, "The master: the others link to it");
  role->add_flag("--satellite", isSatellite, "A satellite: links to the master");
  role->require_option(1);

  command
      .add_option_function<std::string>(
          "--name",
          [this](const std::string& text) {
            CheckName(text);
            name = text;
          },
          "Name of this system, at most 29 characters [the machine's name]")
      ->type_name("NAME");
  command
      .add_option_function<std::string>(
          "--connect", [this](const std::string& text) { ParseMaster(text, masterAddress); },
          "Address of the master to link to; auto: search the network for it [auto]")
      ->type_name("ADDRESS|auto")
      ->excludes(master);
  engine.AddTo(command);
  command.add_option("--port", engine.port, "Port of all connections, the same on all systems")
      ->type_name("PORT")
      ->check(CLI::Range(1, kMaxPort))
      ->capture_default_str();
  command.add_option("--max-satellites", maxSatellites, "Satellites that a master admits [11]")
      ->type_name("N")
      ->check(CLI::Range(1, kMostSatellites));
  command
      .add_option("--identifier", identifier,
                  "Number that no other system of the link has [a random one at each start]")
      ->type_name("N")
      ->check(CLI::Range(1, std::numeric_limits<std::int32_t>::max()));
  command.add_flag("--mesh", mesh, "Connect the satellites with each other too, not only with the master");
  command.add_flag("--legacy", engine.legacy, "Use the legacy command numbering; all systems need the same");
  command
      .add_option("--pcap", captureFile,
                  "Write what this system sends and receives to a capture file for a network analyser")
      ->type_name("FILE");
  command.add_flag("--json", json, "Write one JSON object for each event and answer");
  command.add_flag("--verbose", verbose, "Tell more");
  command.add_option("--record", recording, "Record what happens to a file, for trel report")->type_name("FILE");
}
