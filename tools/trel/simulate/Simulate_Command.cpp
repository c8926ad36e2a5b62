#include "tools/trel/Commands.h"
#include "tools/trel/common/ExitStatus.h"
#include "tools/trel/common/JsonLine.h"
#include "tools/trel/simulate/Simulate_Link.h"
#include "tools/trel/simulate/Simulate_Scenario.h"

#include <CLI/CLI.hpp>

#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

struct Options {
  std::vector<std::string> files;
  std::optional<std::uint32_t> seed;
  bool json = false;
};

bool Simulate(const std::string& file, const Options& options) {
  const Simulate_Scenario scenario = Simulate_ReadScenario(file);
  const std::uint32_t seed = options.seed.value_or(scenario.seed);
  Simulate_Figures figures;
  for (std::uint32_t run = 0; run < scenario.runs; ++run) {
    figures.Add(Simulate_Link(scenario, seed + run).Run());
  }
  if (options.json) {
    nlohmann::ordered_json json{{"scenario", file}, {"seed", seed}, {"runs", scenario.runs}};
    json["figures"] = figures.AsJson();
    json["holds"] = figures.Hold(scenario.limits);
    std::cout << JsonLine(json) << '\n';
  } else {
    std::cout << std::filesystem::path(file).stem().string() << '\n';
    figures.Print(std::cout, scenario.limits);
  }
  return figures.Hold(scenario.limits);
}

} // namespace

void AddSimulateCommand(CLI::App& program, int& exitStatus) {
  const auto options = std::make_shared<Options>();
  CLI::App* const command = program.add_subcommand(
      "simulate", "Shows in virtual time how exact a clock is on a network and with clocks that a file describes");
  command->add_option("scenario", options->files, "The scenarios")->type_name("FILE...")->required();
  command->add_option("--seed", options->seed, "Of the random numbers, in place of the one in the file")
      ->type_name("N");
  command->add_flag("--json", options->json, "Print one JSON object for each scenario, times in microseconds");
  command->footer(
      "Keys of a scenario, numbers with their unit behind them (us, ms, s, min, h, ppm, percent):\n" +
      Simulate_ScenarioKeys() +
      "\nExit status: 0 all limits hold; 1 one does not, or a scenario cannot be used; 2 wrong command line.");
  command->callback([options, &exitStatus] {
    for (const std::string& file : options->files) {
      exitStatus = Simulate(file, *options) ? exitStatus : kExitFailure;
    }
  });
}
