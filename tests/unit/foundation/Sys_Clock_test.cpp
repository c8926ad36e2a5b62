#include <trel/SPSStartupOption.h>
#include <trel/Sys_Clock.h>

#include "foundation/Sys_ClockScale.h"
#include "tests/support/Times.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>

namespace {

constexpr std::int64_t kYear = kSecond * 3600 * 24 * 365;
constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();

TEST(Sys_ClockScale, AppliesOffsetAndDrift) {
  const std::int64_t origin = 3 * kYear;
  EXPECT_EQ(Sys_ClockScale(origin, 0, 0).FromRaw(origin + 5), 5);
  EXPECT_EQ(Sys_ClockScale(origin, -7000, 0).FromRaw(origin + 5), -6995);
  EXPECT_EQ(Sys_ClockScale(origin, 0, 100).FromRaw(origin + 1000 * kSecond), 1000 * kSecond + 100'000);
  EXPECT_EQ(Sys_ClockScale(origin, 0, -1).FromRaw(origin + 10 * kYear), 10 * kYear - 315'360'000);
  EXPECT_EQ(Sys_ClockScale(origin, 0, 100).FromRaw(origin - 1), -2);
}

TEST(Sys_ClockScale, ToRawFindsTheFirstRawTimeThatShowsAHostTime) {
  for (const std::int64_t driftPPM : {-100'000, -1000, -1, 0, 1, 999, 1000, 100'000}) {
    const Sys_ClockScale scale(kYear, -1'234'567, driftPPM);
    for (const std::int64_t base : {-kYear, std::int64_t{0}, kYear, 20 * kYear + 987'654'321}) {
      for (std::int64_t time = base - 1001; time < base + 1001; ++time) {
        const std::int64_t raw = scale.ToRaw(time);
        ASSERT_TRUE(scale.FromRaw(raw) >= time && scale.FromRaw(raw - 1) < time) << driftPPM << ' ' << time;
        ASSERT_LE(std::abs(scale.ToRaw(scale.FromRaw(time)) - time), 1) << driftPPM << ' ' << time;
      }
    }
  }
}

TEST(Sys_ClockScale, LimitsTimesThatWouldOverflow) {
  for (const std::int64_t driftPPM : {-100'000, 100'000}) {
    const Sys_ClockScale scale(20 * kYear, -2'147'483'648'000, driftPPM);
    EXPECT_EQ(scale.FromRaw(kLowest), scale.FromRaw(-Sys_ClockScale::kMaxTime));
    EXPECT_EQ(scale.FromRaw(kHighest), scale.FromRaw(Sys_ClockScale::kMaxTime));
    EXPECT_EQ(scale.ToRaw(kLowest), scale.ToRaw(-Sys_ClockScale::kMaxTime));
    EXPECT_EQ(scale.ToRaw(kHighest), scale.ToRaw(Sys_ClockScale::kMaxTime));
  }
}

} // namespace
