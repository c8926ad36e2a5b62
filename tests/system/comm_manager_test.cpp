#include <trel/Sys_Clock.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_CorrelatedClockMgr.h>
#include <trel/Trel_Messenger.h>

#include "tests/support/PeerSystem.h"
#include "tests/support/TestSystem.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <memory>
#include <optional>

#include <sys/wait.h>

namespace {

bool sIsForked = false;

} // namespace

/// Asked by the leak sanitizer, which takes what the threads of the parent hold for lost.
extern "C" int __lsan_is_turned_off() { return sIsForked ? 1 : 0; } // NOLINT(bugprone-reserved-identifier)

namespace {

class CommManagerTest : public testing::Test {
protected:
  void SetUp() override {
    Trel_CorrelatedClockMgr::Terminate();
    ASSERT_EQ(mPeer.Status(), 0);
    Start();
  }
  void TearDown() override { Trel_CommManager::Terminate(); }

  static void Start() {
    Trel_CommPreferences preferences = TestPreferences(kHostAddress);
    ASSERT_EQ(Trel_CommManager::Initialize(&preferences, nullptr), 0);
  }
  static void Connect(PeerSystem& peer) {
    ASSERT_TRUE(Trel_CommManager::Connect(peer.GetAdaptorIPAddress()));
    ASSERT_THAT(peer.Next(), testing::StartsWith("Connect "));
  }

  PeerSystem mPeer{kPeerAddress};
};

// The commands of a connection arrive in order: the marker shows that nothing came before it.
void ExpectNothing(PeerSystem& peer) {
  Trel_Messenger::StopPlayback(peer.GetAdaptorIPAddress());
  EXPECT_EQ(peer.Next(), "StopPlayback");
}

TEST_F(CommManagerTest, IdleReportsTheClockLock) {
  const char* const unlocked = "ClockLockState ClockLocked=0";
  Connect(mPeer);
  Trel_CommManager::DoIdle();
  EXPECT_EQ(mPeer.Next(), unlocked);
  for (std::int64_t time = 0; time < 4; ++time) {
    Trel_CorrelatedClockMgr::AddMeasurement(time, time);
  }
  Trel_CommManager::DoIdle();
  Trel_CommManager::DoIdle();
  EXPECT_EQ(mPeer.Next(), "ClockLockState ClockLocked=1");

  Trel_CommManager::SetIsMasterClock(true);
  Trel_CorrelatedClockMgr::ResetClock();
  Trel_CommManager::DoIdle();
  ExpectNothing(mPeer);
  Trel_CommManager::SetIsMasterClock(false);
  Trel_CommManager::DoIdle();
  EXPECT_EQ(mPeer.Next(), unlocked);

  // Same state and same connections as at the last report, but another start.
  Trel_CommManager::Terminate();
  Trel_CommManager::DoIdle(); // makes no clock anew
  EXPECT_EQ(Trel_CorrelatedClockMgr::WaitUntilLocked(0, 1'000'000), eTrel_ClockWait_Terminated);
  EXPECT_EQ(mPeer.Next(), "Disconnect");
  Start();
  Connect(mPeer);
  Trel_CommManager::DoIdle();
  EXPECT_EQ(mPeer.Next(), unlocked);
}

TEST_F(CommManagerTest, AClockEndsWithTheInstanceThatSuppliesIt) {
  std::optional<PeerSystem> other(kOtherPeerAddress);
  const auto supply = [](PeerSystem& supplier) {
    Trel_Cmd_UpdateRunningTime time(0);
    Trel_Cmd_LastUpdateRunningTimeValid voucher;
    for (Trel_Command* command : {static_cast<Trel_Command*>(&time), static_cast<Trel_Command*>(&voucher)}) {
      command->SetIPAddressTo(kHostAddress);
      supplier.SendCommand(command);
    }
  };
  const auto measurements = [] { return Trel_CorrelatedClockMgr::GetStatus().measurements; };
  const auto part = [](PeerSystem& peer) {
    EXPECT_TRUE(Trel_CommManager::Disconnect(peer.GetAdaptorIPAddress()));
    EXPECT_TRUE(Eventually([&peer] { return !peer.IsConnected(kHostAddress); }));
  };
  const auto meet = [&](PeerSystem& peer, ETCPE_SystemType type) { // for a short time
    peer.SetSystemType(type);
    EXPECT_TRUE(peer.Connect(kHostAddress));
    part(peer);
    return measurements();
  };
  Connect(mPeer);
  const std::uint64_t instance = Trel_CommManager::GetPeerInstance(kPeerAddress);
  supply(mPeer);
  EXPECT_EQ(meet(*other, eTCPE_SystemType_Master), 1) << "the supplier is still there";
  part(mPeer);
  EXPECT_EQ(meet(*other, eTCPE_SystemType_Satellite), 1);
  ASSERT_TRUE(mPeer.Connect(kHostAddress));
  EXPECT_EQ(Trel_CommManager::GetPeerInstance(kPeerAddress), instance);
  EXPECT_EQ(measurements(), 1) << "the same instance";
  part(mPeer);
  EXPECT_EQ(meet(*other, eTCPE_SystemType_Master), 0);

  ASSERT_TRUE(other->Connect(kHostAddress));
  supply(*other);
  EXPECT_EQ(measurements(), 1);
  other.reset();
  other.emplace(kOtherPeerAddress);
  EXPECT_EQ(meet(*other, eTCPE_SystemType_None), 0) << "another instance";
}

TEST_F(CommManagerTest, AForkedProcessLeavesTheEngineOfItsParentAlone) {
  Connect(mPeer);
  const std::int64_t begin = Sys_Clock::Microseconds();
  const pid_t child = fork();
  if (child == 0) {
    sIsForked = true;
    const bool isSpared = !Trel_CommManager::IsInitialized() && !Trel_CommManager::Disconnect(kPeerAddress);
    Trel_CommManager::Terminate();
    std::destroy_at(&mPeer);
    std::exit(isSpared && Sys_Clock::Microseconds() - begin < 500'000 ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  ExpectNothing(mPeer);
}

TEST(CommManagerDeathTest, TheEndOfTheProcessTerminates) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  PeerSystem peer(kPeerAddress); // the child, which comes this way too, finds the address taken
  EXPECT_EXIT(
      {
        Trel_CommPreferences preferences = TestPreferences(kHostAddress);
        Trel_CommManager::Initialize(&preferences, nullptr);
        std::exit(Trel_CommManager::Connect(kPeerAddress) ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
  EXPECT_THAT(peer.Next(), testing::StartsWith("Connect "));
  EXPECT_EQ(peer.Next(), "Disconnect");
}

} // namespace
