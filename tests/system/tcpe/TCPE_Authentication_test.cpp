#include <trel/SPSStartupOption.h>

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

TEST_F(TCPE_Authentication, ASecretThatOthersCanReadIsRefused) {
  ASSERT_EQ(Start(mA, mSecret), eTCPE_Status_Success);
  mA.Terminate();
  std::filesystem::permissions(mFile.Name(), std::filesystem::perms::group_read, std::filesystem::perm_options::add);
  EXPECT_EQ(mA.Start(), eTCPE_Status_SharedSecret);
  EXPECT_THAT(mA.GetInitializationReport(), testing::HasSubstr(mFile.Name() + " is open to other users"));
  EXPECT_FALSE(mA.IsInitialized());
}

TEST_F(TCPE_Authentication, CommandsOfManyThreadsArriveInBothDirections) {
  constexpr int kThreads = 4;
  constexpr int kCommands = 500;
  ASSERT_EQ(Start(mA, mSecret) + Start(mB, mSecret), 0);
  std::atomic<int> failures = 0;
  {
    std::vector<std::jthread> threads;
    mB.handler = [&](const std::string& text, std::uint32_t from) { // sends before the peer has its answer, perhaps
      failures += text == "Connect" && mB.SendTime(-1, from) != eTCPE_CommErr_None ? 1 : 0;
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

} // namespace
