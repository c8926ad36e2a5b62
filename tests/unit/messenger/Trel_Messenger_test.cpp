#include <trel/Trel_Messenger.h>

#include <gtest/gtest.h>

namespace {

TEST(Trel_Messenger, QueriesAnswerNothingBeforeInitialize) {
  constexpr std::uint32_t kAddress = 0x7f000002;
  std::int64_t times[5] = {1, 2, 3, 4, 5};
  std::int32_t speed = 6;
  std::uint32_t delay = 7;
  bool loop = true;
  auto state = static_cast<ETrel_State>(8);
  Trel_Messenger::GetPlayRange(&times[0], &times[1], &times[2], &times[3], &times[4], &speed, &loop, kAddress);
  Trel_Messenger::GetPositionRunningTimeCorrelation(&times[0], &times[1], kAddress);
  Trel_Messenger::GetStartDelay(&delay, kAddress);
  Trel_Messenger::GetState(&state, kAddress);
  for (std::int64_t i = 0; i < 5; ++i) {
    EXPECT_EQ(times[i], i + 1);
  }
  EXPECT_EQ(speed, 6);
  EXPECT_EQ(delay, 7U);
  EXPECT_TRUE(loop);
  EXPECT_EQ(state, 8);
  EXPECT_EQ(Trel_Messenger::GetCurrentRunningTime(kAddress), 0);
  EXPECT_EQ(Trel_Messenger::GetFrameEdgeInRunningTime(kAddress), 0);
  EXPECT_FALSE(Trel_Messenger::RequestSupplyMasterClock(true, kAddress));
}

} // namespace
