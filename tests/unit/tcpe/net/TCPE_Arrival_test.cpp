#include "tcpe/net/TCPE_Arrival.h"

#include <gtest/gtest.h>

namespace {

TEST(TCPE_Arrival, IsWhatTheStampSaysWhereItCanBeBelieved) {
  constexpr std::int64_t kWallAhead = 1'700'000'000'000'000'000; // nanoseconds
  constexpr std::int64_t kDay = 86'400'000'000'000;
  const struct {
    const char* name;
    std::optional<std::int64_t> age; ///< of the stamp at the read, as the wall clock says
    std::int64_t arrivedBefore;      ///< the read, microseconds
    std::int64_t setBy = 0;          ///< the wall clock, since the read before
  } cases[] = {
      {"the first read has nothing to compare", 30'000, 0},
      {"stamped", 30'000, 30},
      {"in the same moment", 0, 0},
      {"without a stamp", std::nullopt, 0},
      {"of the future", -1, 0},
      {"just not too old", 2'000'000, 2'000},
      {"too old", 2'000'001, 0},
      {"set by what reading the clocks may take", 30'000, 30, -2'000},
      {"set a little back", 28'000, 0, -2'001},
      {"and the next is believed", 28'000, 28},
      {"set ahead", 30'000 + 400'000, 0, 400'000},
      {"set by a day", kDay, 0, kDay},
  };
  TCPE_ArrivalClock clock;
  std::int64_t raw = 5'000'000'000;
  std::int64_t wall = raw + kWallAhead;
  for (const auto& test : cases) {
    raw += 700'000'000;
    wall += 700'000'000 + test.setBy;
    const TCPE_Arrival arrival = clock.ArrivalOf(raw, wall, test.age ? std::optional(wall - *test.age) : std::nullopt);
    EXPECT_EQ(arrival.read, raw / 1'000) << test.name;
    EXPECT_EQ(arrival.arrived, raw / 1'000 - test.arrivedBefore) << test.name;
    EXPECT_EQ(arrival.OfSeveral().arrived, arrival.read) << test.name;
    EXPECT_EQ(arrival.NotBefore(arrival.arrived).arrived, arrival.arrived) << test.name;
    EXPECT_EQ(arrival.NotBefore(arrival.arrived + 1).arrived, arrival.read) << test.name;
    EXPECT_EQ(arrival.HostTime(), Sys_Clock::FromRaw(arrival.arrived)) << test.name;
  }
  EXPECT_EQ((TCPE_Arrival{.read = 900, .arrived = 800, .hostTimeOfSource = 7}.HostTime()), 7);
}

} // namespace
