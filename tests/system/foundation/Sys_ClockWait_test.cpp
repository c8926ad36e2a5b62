#include <trel/Sys_Clock.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

namespace {

std::int64_t ProcessorTime() { return std::int64_t{std::clock()} * 1'000'000 / CLOCKS_PER_SEC; }

TEST(Sys_ClockWait, ReturnsAtTheMomentAndSleepsTillThen) {
  constexpr std::int64_t kWait = 5000;
  constexpr std::int64_t kMaxMedianLateness = 1000; // ten times what an idle machine shows at worst
  constexpr std::int64_t kMaxProcessorTime = kWait / 2;
  std::array<std::int64_t, 41> lateness = {};
  const std::int64_t processorTimeBefore = ProcessorTime();
  for (std::int64_t& late : lateness) {
    const std::int64_t moment = Sys_Clock::Microseconds() + kWait;
    Sys_Clock::WaitUntil(moment);
    late = Sys_Clock::Microseconds() - moment;
    ASSERT_GE(late, 0);
  }
  const std::int64_t processorTime =
      (ProcessorTime() - processorTimeBefore) / static_cast<std::int64_t>(lateness.size());
  std::ranges::sort(lateness);
  const std::int64_t median = lateness[lateness.size() / 2];
  std::printf("lateness: median %lld us (limit %lld), greatest %lld us; processor time a wait: %lld us (limit %lld)\n",
              static_cast<long long>(median), static_cast<long long>(kMaxMedianLateness),
              static_cast<long long>(lateness.back()), static_cast<long long>(processorTime),
              static_cast<long long>(kMaxProcessorTime));
  EXPECT_LE(median, kMaxMedianLateness);
  EXPECT_LE(processorTime, kMaxProcessorTime);
}

} // namespace
