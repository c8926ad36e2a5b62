#pragma once

#include "tools/trel/common/Percentiles.h"

#include <cstdint>
#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// What the demonstration has measured. Addresses in host order, times in microseconds unless they say otherwise.
struct Demo_Results {
  struct Satellite {
    std::uint32_t address = 0;
    std::string name;
    std::int64_t offset = 0; ///< of the simulated clock when the process starts
    std::int32_t driftPPM = 0;
    std::optional<double> linkedMilliseconds; ///< since the start of the demonstration, as the next one
    std::optional<double> lockedMilliseconds;
    std::optional<Percentiles> clockError;
    std::optional<Percentiles> errorBound; ///< what the satellite took for the largest possible clock error
  };
  struct Start {
    std::int64_t agreedRunningTime = 0;
    std::map<std::uint32_t, std::int64_t> late; ///< actual start minus agreed one; positive: late

    std::int64_t Spread() const;
  };

  bool isLegacy = false;
  std::vector<Satellite> satellites;
  std::vector<Start> starts; ///< in each at least one system has started
  std::vector<std::string> failures;

  void PrintTable(std::ostream& out) const;
  void WriteJson(std::ostream& out) const;
};
