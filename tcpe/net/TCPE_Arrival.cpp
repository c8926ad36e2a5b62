#include "tcpe/net/TCPE_Arrival.h"

#include <cstdlib>
#include <utility>

namespace {

/// From one reading of the clocks to the next. Slewing moves both alike, so their difference changes by what passes
/// between reading the one and the other.
constexpr std::int64_t kUnchanged = 2'000; // nanoseconds

constexpr std::int64_t kNanosecondsOfTime = 1'000;

} // namespace

TCPE_Arrival TCPE_ArrivalClock::ArrivalOf(std::int64_t raw, std::int64_t wall, std::optional<std::int64_t> stamp) {
  const std::int64_t ahead = wall - raw;
  const std::optional<std::int64_t> before = std::exchange(mWallAhead, ahead);
  const bool wasSet = !before || std::abs(ahead - *before) > kUnchanged;
  const std::int64_t age = wall - stamp.value_or(wall);
  const bool isBelieved = !wasSet && age >= 0 && age <= kOldest;
  return {.read = raw / kNanosecondsOfTime, .arrived = (isBelieved ? raw - age : raw) / kNanosecondsOfTime};
}
