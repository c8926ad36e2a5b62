#include "tcpe/protocol/TCPE_DiscoveryResponder.h"

#include "tests/support/Times.h"

#include <gtest/gtest.h>

#include <limits>
#include <set>

namespace {

constexpr std::uint32_t kOwnAddress = 0x0a000001;

class TCPE_DiscoveryResponderTest : public testing::Test {
protected:
  void Ask(TCPE_DiscoveryCodec::Kind kind, std::uint32_t from, bool wasBroadcast, TCPE_Time now) {
    mResponder.Received(mCodec.WriteQuery({.kind = kind}), {from, 1000}, wasBroadcast, now);
  }
  std::size_t Answers(TCPE_Time now) {
    std::size_t count = 0;
    while (mResponder.NextAnswer(kOwnAddress, now)) {
      ++count;
    }
    return count;
  }

  const TCPE_DiscoveryCodec mCodec{{.majorVersion = 4, .minorVersion = 1}};
  const TCPE_Limits mLimits{};
  TCPE_DiscoveryResponder::Self mSelf;
  std::uint64_t mRandom = 0;
  TCPE_DiscoveryResponder mResponder{{.limits = {},
                                      .datagrams = {.majorVersion = 4, .minorVersion = 1},
                                      .describe = [this] { return mSelf; },
                                      .random = [this] { return mRandom += 12'345; }}};
};

TEST_F(TCPE_DiscoveryResponderTest, AnswersABroadcastWithinATenthOfASecondAndOtherQueriesAtOnce) {
  const auto masters = TCPE_DiscoveryCodec::Kind::masters;
  Ask(masters, 1, false, kSecond);
  EXPECT_EQ(mResponder.NextDeadline(), kSecond);
  EXPECT_EQ(Answers(kSecond), 1U);
  std::set<TCPE_Time> delays;
  for (std::uint32_t address = 1; address <= 50; ++address) {
    Ask(masters, address, true, kSecond);
    delays.insert(mResponder.NextDeadline() - kSecond);
    EXPECT_EQ(Answers(mResponder.NextDeadline()), 1U);
  }
  EXPECT_GE(*delays.begin(), 0);
  EXPECT_LE(*delays.rbegin(), mLimits.answerDelay);
  EXPECT_GT(delays.size(), 40U);
  EXPECT_EQ(mResponder.NextDeadline(), std::numeric_limits<TCPE_Time>::max());
}

TEST_F(TCPE_DiscoveryResponderTest, BoundsAnswersToOneAddressAndAnswersThatWait) {
  const auto masters = TCPE_DiscoveryCodec::Kind::masters;
  std::size_t answers = 0;
  for (TCPE_Time now = 0; now < 10 * kSecond; now += 1000) {
    Ask(masters, 1, false, now);
    answers += Answers(now);
    if (now == 500'000) {
      EXPECT_GE(answers, 20U);
      Ask(masters, 2, false, now); // another address has a rate of its own
      EXPECT_EQ(Answers(now), 1U);
    }
  }
  EXPECT_GE(answers, 200U);
  EXPECT_LE(answers, 221U);
  EXPECT_EQ(mResponder.Counters().beyondRate, 10'000 - answers);

  const std::uint64_t before = mResponder.Counters().beyondRate;
  for (std::uint32_t address = 0; address < 10'000; ++address) {
    Ask(masters, address, true, 20 * kSecond);
  }
  EXPECT_EQ(Answers(21 * kSecond), mLimits.maxDueAnswers);
  EXPECT_EQ(mResponder.Counters().beyondRate, before + 10'000 - mLimits.maxDueAnswers);
}

TEST(TCPE_AnswerRate, RemembersABoundedNumberOfAddressesAndForgetsTheIdlest) {
  const TCPE_Limits limits;
  TCPE_AnswerRate rate(limits);
  while (rate.Take(0, 0)) {
  }
  for (std::uint32_t address = 1; address < 100'000; ++address) {
    ASSERT_TRUE(rate.Take(address, 0));
  }
  EXPECT_EQ(rate.Addresses(), limits.maxAskers);
  EXPECT_FALSE(rate.Take(0, 0));
}

} // namespace
