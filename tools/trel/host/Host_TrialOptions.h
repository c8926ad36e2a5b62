#pragma once

#include <cstdint>
#include <optional>

namespace CLI {
class App;
}

/// Options of `trel host` for a program that runs hosts to try and to measure them; the help does not list them.
struct Host_TrialOptions {
  std::optional<std::int32_t> clockOffset; ///< of the simulated clock, milliseconds
  std::optional<std::int32_t> clockDrift;  ///< of the simulated clock, parts per million
  bool clockSamples = false;               ///< tells what the clock does, ten times a second
  std::int64_t parent = 0;                 ///< process that this one ends with; 0: none

  void AddTo(CLI::App& command);
  /// Before the platform is prepared.
  void Prepare() const;
  /// Whether the errors of the clock are taken note of.
  bool IsClockMeasured() const { return clockSamples || clockOffset || clockDrift; }
};
