#include "tools/trel/host/Host_Options.h"

#include "tools/trel/common/CommonOptions.h"
#include "tools/trel/host/Host_Arguments.h"
#include "tools/trel/host/Host_UsageError.h"

#include <trel/Sys_Socket.h>
#include <trel/TCPE_System.h>

#include <CLI/CLI.hpp>

#include <limits>
#include <stdexcept>

namespace {

constexpr std::int32_t kMostSatellites = 128;

void ParseMaster(const std::string& text, std::uint32_t& address) {
  if (text == "auto") {
    address = 0;
  } else if (!Sys_Socket::EncodeIPAddress(text.c_str(), &address)) {
    throw CLI::ValidationError("--connect", text + " is no IPv4 address; write one like 192.168.1.10, or auto");
  }
}

std::int64_t ParseTime(const std::string& text) {
  try {
    Host_Arguments words(text);
    const std::int64_t time = words.TakeTime("the time");
    words.ExpectEnd();
    return time;
  } catch (const Host_UsageError& error) {
    throw CLI::ValidationError("--max-late", error.what());
  }
}

void CheckName(const std::string& name) {
  if (name.empty() || name.size() >= TCPE_System::kSystemNameSize) {
    throw CLI::ValidationError("--name", "a name has 1 to " + std::to_string(TCPE_System::kSystemNameSize - 1) +
                                             " characters; letters with accents count as two");
  }
}

} // namespace

void Host_Options::AddTo(CLI::App& command) {
  command.add_flag("--master", isMaster, "Be the master: the others link to it. Either this or --satellite is needed");
  command.add_flag("--satellite", isSatellite, "Be a satellite: link to the master");
  command
      .add_option_function<std::string>(
          "--name",
          [this](const std::string& text) {
            CheckName(text);
            name = text;
          },
          "Name of this system, at most 29 characters (letters with accents count as two) [the machine's name]")
      ->type_name("NAME");
  command
      .add_option_function<std::string>(
          "--connect",
          [this](const std::string& text) {
            ParseMaster(text, masterAddress);
            isConnectGiven = true;
          },
          "Satellite: address of the master to link to; auto: search the network for it [auto]")
      ->type_name("ADDRESS|auto");
  engine.AddTo(command);
  engine.AddPortTo(command);
  Limit(command
            .add_option("--max-satellites", maxSatellites,
                        "Master: satellites that it admits, at most " + std::to_string(kMostSatellites) + " [11]")
            ->type_name("N"),
        1, kMostSatellites);
  Limit(command
            .add_option("--identifier", identifier,
                        "Number above 0 that no other system of the link has [a random one at each start]")
            ->type_name("N"),
        1, std::numeric_limits<std::int32_t>::max());
  command
      .add_option_function<std::string>(
          "--max-late", [this](const std::string& text) { maxLate = ParseTime(text); },
          "How late a start may reach this system and be made all the same, like 20ms or 1s [100ms]")
      ->type_name("TIME");
  command.add_flag("--mesh", mesh, "Master: connects the satellites with each other too, not only with itself");
  command.add_flag("--legacy", engine.legacy, "Use the legacy command numbering; all systems need the same");
  command
      .add_option("--pcap", captureFile,
                  "Write what this system sends and receives to a capture file for a network analyser")
      ->type_name("FILE");
  command.add_flag("--json", json, "Write one JSON object for each event and answer");
  command.add_flag("--verbose", verbose, "Tell more");
  command.add_option("--record", recording, "Record what happens to a file, for trel report")->type_name("FILE");
  trial.AddTo(command);
}

void Host_Options::Check() const {
  if (isMaster == isSatellite) {
    throw CLI::ValidationError("say what this system is: either --master or --satellite");
  }
  const char* const wrong = isMaster && isConnectGiven          ? "--connect is for satellites; a master is linked to"
                            : isSatellite && mesh               ? "--mesh is for the master; give it there"
                            : isSatellite && maxSatellites != 0 ? "--max-satellites is for the master; give it there"
                                                                : nullptr;
  if (wrong != nullptr) {
    throw CLI::ValidationError(wrong);
  }
}
