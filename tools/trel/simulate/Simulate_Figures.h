#pragma once

#include <nlohmann/json.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <vector>

/// What a simulation shows. Errors are those of the running time that the observed satellite predicts, microseconds.
class Simulate_Figures {
public:
  static constexpr std::size_t kCount = 12;
  using Limits = std::array<std::optional<double>, kCount>;

  struct Row {
    const char* key;
    const char* unit; ///< TIME: microseconds
    const char* meaning;
  };
  static constexpr std::array<Row, kCount> kRows{{
      {"lock", "TIME", "From connecting to locked"},
      {"usable", "TIME", "From connecting to a bound under 20 us"},
      {"rms", "TIME", "Error, root of the mean square"},
      {"p99", "TIME", "Error, 99th percentile"},
      {"largest", "TIME", "Error, largest"},
      {"ahead-rms", "TIME", "Error one second ahead, root of the mean square"},
      {"ahead-p99", "TIME", "Error one second ahead, 99th percentile"},
      {"ahead-largest", "TIME", "Error one second ahead, largest"},
      {"bound", "TIME", "Error bound, median"},
      {"beyond", "PERCENT", "Errors beyond their bound"},
      {"false-lock", "TIME", "Longest time locked with an unknown error over 1 ms"},
      {"round-trips", "PER SECOND", "Cost: round trips with a satellite"},
  }};

  static constexpr double kTenths = 10; ///< of a microsecond, as errors and bounds are kept

  /// What one run has seen. Errors and bounds are those of a clock that says that it is locked.
  struct Run {
    std::optional<double> lock;
    std::optional<double> usable;
    std::vector<std::int64_t> errors; ///< magnitudes
    std::vector<std::int64_t> errorsAhead;
    std::vector<std::int64_t> bounds;
    std::size_t beyond = 0;
    double falseLock = 0;
    double roundTrips = 0; ///< a second
  };
  void Add(const Run& run);

  bool Hold(const Limits& limits) const;
  /// Prints the figures beside their limits.
  void Print(std::ostream& out, const Limits& limits) const;
  nlohmann::ordered_json AsJson() const;

private:
  static bool Holds(const std::optional<double>& value, const std::optional<double>& limit) {
    return !limit || (value && *value <= *limit);
  }
  std::array<std::optional<double>, kCount> Values() const;

  Run mAll;
  std::size_t mRuns = 0;
};
