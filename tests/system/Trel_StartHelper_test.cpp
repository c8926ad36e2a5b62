#include <trel/Sys_Clock.h>
#include <trel/Trel_CorrelatedClockMgr.h>
#include <trel/host/Trel_StartHelper.h>

#include <cstdint>
#include <future>
#include <limits>

#include <gtest/gtest.h>

namespace {

constexpr std::int64_t kMinute = 60'000'000;

void CorrelateRunningTime(std::int64_t aheadOfHostTime) {
  Trel_CorrelatedClockMgr::ResetClock();
  const std::int64_t now = Sys_Clock::Microseconds();
  for (int i = -5; i <= 0; ++i) {
    const std::int64_t hostTime = now + std::int64_t{100'000} * i;
    Trel_CorrelatedClockMgr::AddMeasurement(hostTime + aheadOfHostTime, hostTime);
  }
}

class Trel_StartHelperTest : public testing::Test {
protected:
  void SetUp() override { Trel_CorrelatedClockMgr::Initialize(); }
  void TearDown() override { Trel_CorrelatedClockMgr::Terminate(); }
};

TEST_F(Trel_StartHelperTest, EndsAtTheRunningTimeAndNotBefore) {
  CorrelateRunningTime(kMinute);
  const std::int64_t start = Sys_Clock::Microseconds() + 230'000;
  std::int64_t told = -1;
  EXPECT_TRUE(Trel_StartHelper::WaitUntilRunningTime(start + kMinute, &told));
  const std::int64_t late = Sys_Clock::Microseconds() - start;
  EXPECT_TRUE(0 <= told && told <= late && late <= 10'000) << told << ' ' << late;
}

TEST_F(Trel_StartHelperTest, ReturnsAtOnceWithoutLockForThePastAndForTheUnreachable) {
  EXPECT_FALSE(Trel_StartHelper::WaitUntilRunningTime(Sys_Clock::Microseconds() + kMinute));
  CorrelateRunningTime(-kMinute);
  EXPECT_TRUE(Trel_StartHelper::WaitUntilRunningTime(Sys_Clock::Microseconds() - kMinute));
  EXPECT_FALSE(Trel_StartHelper::WaitUntilRunningTime(std::numeric_limits<std::int64_t>::max()));
}

TEST_F(Trel_StartHelperTest, HeedsWhatArrivesDuringTheWait) {
  for (const bool isLockLost : {false, true}) { // or the running time is later than it was thought to be
    CorrelateRunningTime(0);
    std::promise<void> waits;
    const std::int64_t begin = Sys_Clock::Microseconds();
    auto result = std::async(std::launch::async, [&] {
      waits.set_value();
      return Trel_StartHelper::WaitUntilRunningTime(begin + kMinute / 2);
    });
    waits.get_future().wait();
    isLockLost ? Trel_CorrelatedClockMgr::ResetClock() : CorrelateRunningTime(kMinute);
    EXPECT_EQ(result.get(), !isLockLost);
    EXPECT_LT(Sys_Clock::Microseconds() - begin, kMinute / 4) << isLockLost;
  }
}

} // namespace
