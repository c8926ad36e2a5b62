#include <trel/SPSStartupOption.h>
#include <trel/Sys_Clock.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_Cmd_Transport.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_CorrelatedClockMgr.h>
#include <trel/Trel_Messenger.h>

#include "tests/support/PeerSystem.h"
#include "tests/support/ReportCollector.h"
#include "tests/support/TestSystem.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

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

TEST_F(CommManagerTest, IdleReportsTheClockLockWhenItOrTheConnectionsChange) {
  PeerSystem other(kOtherPeerAddress);
  ASSERT_EQ(other.Status(), 0);
  const char* const unlocked = "ClockLockState ClockLocked=0";
  const char* const locked = "ClockLockState ClockLocked=1";
  Connect(mPeer);
  Trel_CommManager::DoIdle();
  EXPECT_EQ(mPeer.Next(), unlocked);
  Trel_CommManager::DoIdle();
  ExpectNothing(mPeer);

  Connect(other);
  Trel_CommManager::DoIdle();
  EXPECT_EQ(mPeer.Next(), unlocked);
  EXPECT_EQ(other.Next(), unlocked);

  for (std::int64_t time = 0; time < 4; ++time) {
    Trel_CorrelatedClockMgr::AddMeasurement(time, time);
  }
  Trel_CommManager::DoIdle();
  Trel_CommManager::DoIdle();
  EXPECT_EQ(mPeer.Next(), locked);
  EXPECT_EQ(other.Next(), locked);

  Trel_CommManager::Disconnect(kOtherPeerAddress);
  Trel_CommManager::DoIdle();
  EXPECT_EQ(mPeer.Next(), locked);

  Trel_CommManager::SetIsMasterClock(true);
  Trel_CorrelatedClockMgr::ResetClock();
  Trel_CommManager::DoIdle();
  ExpectNothing(mPeer);
  Trel_CommManager::SetIsMasterClock(false);
  Trel_CommManager::DoIdle();
  EXPECT_EQ(mPeer.Next(), unlocked);

  // Same state and same connections as at the last report, but another start.
  Trel_CommManager::Terminate();
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
  EXPECT_NE(instance, 0U);
  supply(mPeer);
  EXPECT_EQ(meet(*other, eTCPE_SystemType_Master), 1) << "the supplier is still there";
  part(mPeer);
  EXPECT_EQ(Trel_CommManager::GetPeerInstance(kPeerAddress), 0U);
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

TEST_F(CommManagerTest, TerminateEndsWaitingSendersAndSparesCallers) {
  SPSSetStartupOption("SynchronousTimeoutMilliseconds", "60000");
  Trel_CommManager::Terminate();
  Start();
  SPSSetStartupOption("SynchronousTimeoutMilliseconds", nullptr);
  Connect(mPeer);
  mPeer.Hold(true);
  auto waiting = std::async(std::launch::async, [] { return Trel_Messenger::GetCurrentRunningTime(kPeerAddress); });
  EXPECT_EQ(mPeer.Next(), "GetCurrentRunningTime");

  std::atomic<bool> ends{false};
  std::vector<std::thread> callers;
  for (int i = 0; i < 2; ++i) {
    callers.emplace_back([&ends] {
      while (!ends) {
        Trel_Messenger::Prime(1, 2, 3, 4, 5, kPeerAddress);
        Trel_CommManager::SetIsSatellite(Trel_CommManager::IsConnected(kPeerAddress));
      }
    });
  }
  const std::int64_t begin = Sys_Clock::Microseconds();
  Trel_CommManager::Terminate();
  const std::int64_t took = Sys_Clock::Microseconds() - begin;
  std::printf("terminating took %lld us (limit 10000000)\n", static_cast<long long>(took));
  EXPECT_LE(took, 10'000'000);
  EXPECT_EQ(waiting.get(), 0);
  for (int i = 0; i < 5; ++i) {
    Start();
    Trel_CommManager::Terminate();
  }
  ends = true;
  for (std::thread& caller : callers) {
    caller.join();
  }
}

std::promise<bool> sIsInitializedAfterTerminate;

TEST_F(CommManagerTest, HandlersCannotTerminate) {
  ReportCollector reports;
  sIsInitializedAfterTerminate = {};
  std::future<bool> isInitialized = sIsInitializedAfterTerminate.get_future();
  Trel_Command::SetDoItCommand(Trel_Cmd_StopPlayback::GetCommandID(), [](TCPE_Command*) {
    Trel_CommManager::Terminate();
    sIsInitializedAfterTerminate.set_value(Trel_CommManager::IsInitialized());
  });
  ASSERT_TRUE(mPeer.Connect(kHostAddress));
  Trel_Cmd_StopPlayback command;
  command.SetIPAddressTo(kHostAddress);
  mPeer.SendCommand(&command);
  ASSERT_EQ(isInitialized.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_TRUE(isInitialized.get());
  EXPECT_THAT(reports.Take(), testing::SizeIs(1));
  EXPECT_TRUE(Trel_CommManager::IsConnected(kPeerAddress));
  Trel_Command::SetDoItCommand(Trel_Cmd_StopPlayback::GetCommandID(), nullptr);
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
