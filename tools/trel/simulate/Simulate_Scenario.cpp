#include "tools/trel/simulate/Simulate_Scenario.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <map>
#include <stdexcept>

namespace {

// What is no time, a percentage or parts per million, has a unit too, so that a pair can hold one of each.
const std::map<std::string, double> kUnits{{"us", 1},   {"ms", 1e3},    {"s", 1e6}, {"min", 60e6},
                                           {"h", 36e8}, {"percent", 1}, {"ppm", 1}};

constexpr double kLongest = 36e10; // a hundred hours
constexpr double kMostLoss = 90;   // percent; of all packets none would ever arrive

/// Whether the second numbers of all pairs, periods and lengths, are ones that there can be.
bool AreLengths(const Simulate_Scenario::Happenings& pairs) {
  return std::all_of(pairs.begin(), pairs.end(), [](const auto& pair) { return pair.second > 0; });
}

/// The keys of a file, and where their values go.
class Keys {
public:
  explicit Keys(Simulate_Scenario& scenario) {
    mParser.allow_config_extras(CLI::config_extras_mode::error);
    Add(mParser, "duration", scenario.duration, "TIME", "Length of the simulation [1 min]")
        ->check(CLI::Range(1.0, kLongest).description(""));
    Add(mParser, "tick", scenario.tick, "TIME", "Between two looks of the master at what is due [10 ms]")
        ->check(CLI::Range(1.0, kLongest).description(""));
    mParser.add_option("--satellites", scenario.satellites, "Number of them; one is observed [1]")
        ->type_name("N")
        ->check(CLI::Range(1, 128));
    mParser.add_option("--seed", scenario.seed, "Of the random numbers [1]")->type_name("N");
    mParser.add_option("--runs", scenario.runs, "With seeds that follow each other [1]")
        ->type_name("N")
        ->check(CLI::Range(1, 1'000'000));
    Add(mParser, "cut", scenario.cuts, "[TIME, TIME, ...]", "When nothing passes the network, and for how long");
    for (const auto& [name, machine] : {std::pair{"master", &scenario.master}, {"satellite", &scenario.satellite}}) {
      CLI::App& section = Section(name, "Clock and threads of the " + std::string(name));
      Add(section, "drift", machine->drift, "PPM", "Of the clock, positive: fast [0 ppm]");
      Add(section, "wander", machine->wander, "[PPM, TIME, ...]", "Changes of the drift: amplitude and period");
      Add(section, "jump", machine->jumps, "[TIME, TIME, ...]", "When the clock jumps, and by how much");
      Add(section, "sleep", machine->sleeps, "[TIME, TIME, ...]", "When the machine is suspended, and for how long");
      Add(section, "wake", machine->wake, "TIME", "Until a thread runs after something has arrived, mean [20 us]")
          ->check(CLI::Range(0.0, kLongest).description(""));
    }
    for (const auto& [name, way] : {std::pair{"there", &scenario.there}, {"back", &scenario.back}}) {
      CLI::App& section = Section(name, name == std::string("there") ? "The way from the master to a satellite"
                                                                     : "The way from a satellite to the master");
      Add(section, "shortest", way->shortest, "TIME", "What a packet takes undisturbed [40 us]")
          ->check(CLI::Range(0.0, kLongest).description(""));
      Add(section, "mean", way->mean, "TIME", "What it takes longer, mean [5 us]")
          ->check(CLI::Range(0.0, kLongest).description(""));
      Add(section, "loss", way->loss, "PERCENT", "Of the packets, which are sent again after 200 ms [0]")
          ->check(CLI::Range(0.0, kMostLoss).description(""));
      Add(section, "burst-every", way->burstEvery, "TIME", "Between bursts of other traffic, mean; 0: none [0]")
          ->check(CLI::Range(0.0, kLongest).description(""));
      Add(section, "burst-for", way->burstFor, "TIME", "Length of a burst, mean")
          ->check(CLI::Range(0.0, kLongest).description(""));
      Add(section, "burst-delay", way->burstDelay, "TIME", "Most that a packet waits during a burst")
          ->check(CLI::Range(0.0, kLongest).description(""));
    }
    CLI::App& section = Section("limit", "What the figures must not exceed");
    for (std::size_t figure = 0; figure < Simulate_Figures::kCount; ++figure) {
      const Simulate_Figures::Row& row = Simulate_Figures::kRows[figure];
      section.add_option("--" + std::string(row.key), scenario.limits[figure], row.meaning)
          ->type_name(row.unit)
          ->transform(CLI::AsNumberWithUnit(kUnits).description(""));
    }
  }

  void Read(const std::string& file) {
    mParser.set_config("--file", file, "", true);
    mParser.parse(std::vector<std::string>{});
  }

  std::string Text() const {
    std::string text;
    for (const CLI::App* section : Sections()) {
      text += section == &mParser ? "" : "[" + section->get_name() + "]\n";
      for (const CLI::Option* option : section->get_options()) {
        const std::string key = "  " + option->get_lnames().front() + " = " + option->get_type_name();
        text += option->get_configurable()
                    ? key + std::string(key.size() < 34 ? 34 - key.size() : 1, ' ') + option->get_description() + '\n'
                    : "";
      }
    }
    return text;
  }

private:
  CLI::App& Section(const std::string& name, const std::string& meaning) {
    return *mParser.add_subcommand(name, meaning)->configurable();
  }
  template <class Value>
  static CLI::Option* Add(CLI::App& section, const std::string& key, Value& value, const char* type,
                          const char* meaning) {
    return section.add_option("--" + key, value, meaning)
        ->type_name(type)
        ->transform(CLI::AsNumberWithUnit(kUnits).description(""));
  }
  std::vector<const CLI::App*> Sections() const {
    std::vector<const CLI::App*> sections{&mParser};
    const auto more = mParser.get_subcommands([](const CLI::App*) { return true; });
    sections.insert(sections.end(), more.begin(), more.end());
    return sections;
  }

  CLI::App mParser{"", "scenario"};
};

} // namespace

Simulate_Scenario Simulate_ReadScenario(const std::string& file) {
  Simulate_Scenario scenario;
  try {
    Keys(scenario).Read(file);
    for (const auto* machine : {&scenario.master, &scenario.satellite}) {
      if (!AreLengths(machine->wander) || !AreLengths(machine->sleeps) || !AreLengths(scenario.cuts)) {
        throw CLI::ValidationError("wander, sleep and cut", "a period or length must be above 0");
      }
    }
  } catch (const CLI::ParseError& error) {
    throw std::runtime_error("cannot use the scenario " + file + ": " + error.what());
  }
  return scenario;
}

std::string Simulate_ScenarioKeys() {
  Simulate_Scenario scenario;
  return Keys(scenario).Text();
}
