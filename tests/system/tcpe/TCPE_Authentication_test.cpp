#include <trel/SPSStartupOption.h>

#include "tcpe/protocol/TCPE_AuthenticationKey.h"
#include "tests/support/ProcessResources.h"
#include "tests/support/RawPeer.h"
#include "tests/support/SharedSecretFile.h"
#include "tests/support/TestSystem.h"

#include <gmock/gmock.h>

#include <filesystem>

namespace {

/// Two systems; each takes the secret that is in the file when it starts.
class TCPE_Authentication : public testing::Test {
protected:
  ~TCPE_Authentication() override { SPSSetStartupOption("AuthenticationFailureSeconds", nullptr); }
  std::int32_t Start(TestSystem& system, const std::string& secret) {
    mFile.Set(secret);
    return system.Start();
  }

  const std::string mSecret = "the secret of the studio";
  SharedSecretFile mFile;
  TestSystem mA{0};
  TestSystem mB{1};
};

TEST_F(TCPE_Authentication, CommandsOfManyThreadsArriveInBothDirections) {
  constexpr int kThreads = 4;
  constexpr int kCommands = 500;
  ASSERT_EQ(Start(mA, mSecret) + Start(mB, mSecret), 0);
  std::atomic<int> failures = 0;
  {
    std::vector<std::jthread> threads;
    mB.handler = [&](const std::string& text, std::uint32_t from) { // sends before the peer has its answer, perhaps
      if (text == "Connect") { // and only then: the last ones may run at the end of the test
        failures += mB.SendTime(-1, from) != eTCPE_CommErr_None ? 1 : 0;
      }
    };
    ASSERT_TRUE(mA.Connect(mB.Address()));
    for (int thread = 0; thread < kThreads; ++thread) {
      for (TestSystem* from : {&mA, &mB}) {
        threads.emplace_back([&, from, to = from == &mA ? mB.Address() : mA.Address()] {
          for (int i = 0; i < kCommands; ++i) {
            failures += from->SendTime(i, to) != eTCPE_CommErr_None ? 1 : 0;
            failures += i % 10 == 0 && from->Query(to) != eTCPE_CommErr_None ? 1 : 0;
          }
        });
      }
    }
  }
  EXPECT_EQ(failures, 0);
  const auto arrivedAt = [](const TestSystem& system) { return system.Count("TestRunningTime"); };
  EXPECT_TRUE(Eventually([&] { return arrivedAt(mA) + arrivedAt(mB) == 2 * kThreads * kCommands + 1; }));
  EXPECT_EQ(mA.Count("error") + mB.Count("error"), 0);
  EXPECT_EQ(mA.GetCounters().wrongTags + mB.GetCounters().wrongTags, 0U);
}

TEST_F(TCPE_Authentication, AnotherSecretOrNoneIsRefusedForAWhile) {
  SPSSetStartupOption("AuthenticationFailureSeconds", "1");
  for (const char* secret : {"what an intruder guesses", ""}) {
    SCOPED_TRACE(secret);
    const std::int64_t before = mB.Count(ErrorText(eNetworkError_Authentication));
    ASSERT_EQ(Start(mB, mSecret) + Start(mA, secret), 0);
    for (int i = 0; i < 3; ++i) {
      EXPECT_FALSE(mA.Connect(mB.Address()));
    }
    EXPECT_TRUE(Eventually([&] { return mA.Count(ErrorText(eNetworkError_Authentication)) == 3 * (before + 1); }));
    EXPECT_TRUE(mB.GetAuthenticationFailed(mA.Address()));
    EXPECT_FALSE(mB.GetAuthenticationFailed(mB.Address()));
    EXPECT_FALSE(mA.GetAuthenticationFailed(mB.Address()));
    EXPECT_EQ(mB.GetCounters().unprovedSecrets, 1U);
    EXPECT_EQ(mB.GetCounters().turnedAway, 2U);
    mA.Terminate();
    ASSERT_EQ(Start(mA, mSecret), 0);
    EXPECT_TRUE(Eventually([&] { return !mB.GetAuthenticationFailed(mA.Address()); }));
    EXPECT_TRUE(mA.Connect(mB.Address()));
    EXPECT_EQ(mB.Count(ErrorText(eNetworkError_Authentication)), before + 1);
    mA.Terminate();
    mB.Terminate();
  }
}

TEST_F(TCPE_Authentication, AThousandGuessesCostLittleAndHinderNobodyElse) {
  constexpr std::int64_t kGuesses = 1000;
  constexpr std::int64_t kAtOnce = 50;
  constexpr std::uint32_t kGuesser = 0x7f000040;
  ASSERT_EQ(Start(mB, mSecret) + Start(mA, mSecret), 0);
  const Bytes guess = RawFrame({.flags = kTCPE_Flag_ReplyWanted, .type = kTCPE_CurrentTypes.authenticationChallenge},
                               Bytes(TCPE_AuthenticationKey::kSize));
  const std::int64_t begin = Sys_Clock::RawMicroseconds();
  const std::int64_t memory = ResidentKilobytes();
  const std::int64_t descriptors = OpenDescriptors();
  std::int64_t mostDescriptors = 0;
  for (std::int64_t made = 0; made < kGuesses; made += kAtOnce) {
    std::vector<RawPeer> guessers;
    for (std::int64_t i = 0; i < kAtOnce; ++i) {
      guessers.emplace_back(kGuesser, mB.Address()).Send(RawHello(true) + guess);
      mostDescriptors = std::max(mostDescriptors, OpenDescriptors() - descriptors - i - 1);
    }
    for (const RawPeer& guesser : guessers) {
      ASSERT_TRUE(guesser.IsClosed());
    }
    if (made == kGuesses / 2) {
      EXPECT_TRUE(mA.Connect(mB.Address()));
    }
  }
  ExpectWithin("time for 1000 guesses, us", Sys_Clock::RawMicroseconds() - begin, 10'000'000);
  EXPECT_TRUE(Eventually([this] { return mB.GetCounters().refusedConnections == kGuesses; }));
  ExpectWithin("proofs examined", static_cast<std::int64_t>(mB.GetCounters().unprovedSecrets), 5);
  ExpectWithin("descriptors", mostDescriptors,
               static_cast<std::int64_t>(TCPE_Limits{}.maxHalfOpenPerAddress) +
                   3); // one that is just refused, two of the link
  ExpectWithin("memory, KiB", ResidentKilobytes() - memory, kMemoryLimit);
  EXPECT_TRUE(mB.GetAuthenticationFailed(kGuesser));
  EXPECT_EQ(mB.From(kGuesser), std::vector{ErrorText(eNetworkError_Authentication)});
  EXPECT_EQ(mA.Query(mB.Address()), eTCPE_CommErr_None);
}

} // namespace
