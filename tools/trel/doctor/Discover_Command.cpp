#include "tools/trel/Commands.h"
#include "tools/trel/common/EngineOptions.h"
#include "tools/trel/common/ExitStatus.h"
#include "tools/trel/common/JsonLine.h"
#include "tools/trel/common/Texts.h"
#include "tools/trel/doctor/Survey.h"
#include "tools/trel/watch/Watch_Text.h"

#include <trel/Cmn_Printable.h>
#include <trel/Sys_Socket.h>
#include <trel/Trel_CommManager.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <iostream>
#include <memory>
#include <tuple>
#include <vector>

namespace {

struct DiscoverOptions {
  EngineOptions engine;
  bool masters = false;
  bool satellites = false;
  bool all = false;
  bool json = false;
};

constexpr const char* kDiscoverFooter =
    "A system is listed while a host runs there: trel host, or a program that uses the library. One that has\n"
    "the same address as this command is not listed, nor are the systems of trel demo.\n"
    "\n"
    "Exit status: 0 something was found; 1 nothing was found, or the search failed; 2 wrong command line.\n"
    "\n"
    "Fields of --json, one object a line: address, name, host, role (master, satellite), version, available\n"
    "(a master: has room for a satellite; a satellite: is not linked).\n"
    "\n"
    "Examples:\n"
    "  trel discover                                  who is on the network?\n"
    "  trel discover --masters --json                 for a script\n"
    "  trel discover --address 127.0.0.99             those at 127.x addresses of this machine\n"
    "  trel discover --secret-file studio.secret      the systems that share this secret";

std::string VersionOf(const Trel_System& system) {
  return std::to_string(system.GetMajorVersion()) + "." + std::to_string(system.GetMinorVersion());
}

void PrintJson(const Survey::Systems& systems) {
  using Json = nlohmann::ordered_json;
  for (const auto& [system, isAvailable] : systems) {
    const Json json = {{"address", Sys_Socket::DecodeIPAddress(system.GetIPAddress())},
                       {"name", system.GetSystemName()},
                       {"host", system.GetHostName()},
                       {"role", RoleText(system.GetSystemType())},
                       {"version", VersionOf(system)},
                       {"available", isAvailable}};
    std::cout << JsonLine(json) << '\n';
  }
}

void PrintTable(const Survey::Systems& systems) {
  using Row = std::array<std::string, 6>;
  std::vector<Row> rows = {{"address", "name", "host", "role", "version", "available"}};
  for (const auto& [system, isAvailable] : systems) {
    rows.push_back({Sys_Socket::DecodeIPAddress(system.GetIPAddress()), Cmn_Printable(system.GetSystemName()),
                    Cmn_Printable(system.GetHostName()), RoleText(system.GetSystemType()), VersionOf(system),
                    isAvailable ? "yes" : "no"});
  }
  std::array<std::size_t, std::tuple_size_v<Row>> widths = {};
  for (const Row& row : rows) {
    std::transform(row.begin(), row.end(), widths.begin(), widths.begin(),
                   [](const std::string& text, std::size_t width) { return std::max(width, Watch_Text::Width(text)); });
  }
  for (const Row& row : rows) {
    std::string line;
    for (std::size_t column = 0; column + 1 < row.size(); ++column) {
      line += Watch_Text::Fit(row.at(column), widths.at(column)) + "  ";
    }
    std::cout << line << row.back() << '\n';
  }
}

/// What to check when nobody has answered, the likeliest reasons first.
std::string Advice(const EngineOptions& engine) {
  const TCPE_Counters counters = Trel_CommManager::GetSnapshot().counters;
  if (counters.unauthenticDatagrams != 0) {
    return engine.HasSecret() ? "A system answered with another secret, or with none: all systems need the same "
                                "secret file."
                              : "A system answered that wants a shared secret: give its file with --secret-file.";
  }
  if (counters.otherNumberingDatagrams != 0) {
    return "A system answered that uses the other command numbering: all systems need the same (--legacy).";
  }
  return "Check that a host runs on the other systems, that they are on the same network as " +
         Sys_Socket::DecodeIPAddress(Trel_CommManager::GetAdaptorIPAddress()) + " (else choose with --address),\n" +
         "that they use the discovery port " + std::to_string(Trel_CommManager::GetDiscoveryPort()) +
         ", and that no firewall stops UDP there.\n" +
         (engine.HasSecret() ? "With --secret-file only systems that share the secret answer"
                             : "Systems that share a secret answer only with --secret-file") +
         ". trel doctor looks closer.";
}

int RunDiscover(DiscoverOptions options) {
  if (!options.masters && !options.satellites) {
    options.all = true;
  }
  options.engine.Prepare();
  options.engine.OnlyAsk();
  if (const std::string failure = options.engine.Start(nullptr); !failure.empty()) {
    std::cerr << "trel: " << failure << '\n';
    return kExitFailure;
  }
  Survey::Systems systems;
  if (options.all || options.masters) {
    systems.merge(Survey::Masters());
  }
  if (options.all || options.satellites) {
    systems.merge(Survey::Satellites());
  }
  if (options.json) {
    PrintJson(systems);
  } else if (!systems.empty()) {
    PrintTable(systems);
  }
  if (systems.empty()) {
    std::cerr << "No system was found. " << Advice(options.engine) << '\n';
  }
  Trel_CommManager::Terminate();
  return systems.empty() ? kExitFailure : kExitSuccess;
}

} // namespace

void AddDiscoverCommand(CLI::App& program, int& exitStatus) {
  const auto options = std::make_shared<DiscoverOptions>();
  CLI::App* const discover = program.add_subcommand("discover", "Lists the systems that are on the network");
  CLI::Option* const all = discover->add_flag("--all", options->all, "List masters and satellites (the default)");
  discover->add_flag("--masters", options->masters, "List masters only")->excludes(all);
  discover->add_flag("--satellites", options->satellites, "List satellites only")->excludes(all);
  options->engine.AddTo(*discover);
  discover->add_flag("--legacy", options->engine.legacy, "Look for systems with the legacy command numbering");
  discover->add_flag("--json", options->json, "Print one JSON object for each system");
  discover->footer(kDiscoverFooter);
  discover->callback([options, &exitStatus] { exitStatus = RunDiscover(*options); });
}
