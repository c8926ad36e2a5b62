#include <trel/Trel_CommManager.h>
#include <trel/Trel_Messenger.h>

#include "tests/support/Hex.h"
#include "tests/support/NumberingTest.h"
#include "tests/support/PeerSystem.h"

#include <gmock/gmock.h>

#include <optional>

namespace {

class MessengerTest : public NumberingTest {
protected:
  void SetUp() override {
    NumberingTest::SetUp();
    Trel_CommPreferences preferences = TestPreferences(kHostAddress);
    Trel_CommManager::SetSystemName("Stage");
    ASSERT_EQ(Trel_CommManager::Initialize(&preferences, nullptr), 0);
    mPeer.emplace(kPeerAddress);
    ASSERT_EQ(mPeer->Status(), 0);
    ASSERT_TRUE(Trel_CommManager::Connect(kPeerAddress));
    ASSERT_THAT(mPeer->Next(), testing::AllOf(testing::StartsWith("Connect "), testing::HasSubstr("\"Stage\"")));
  }
  void TearDown() override {
    mPeer.reset();
    Trel_CommManager::Terminate();
    NumberingTest::TearDown();
  }

  std::optional<PeerSystem> mPeer;
};

INSTANTIATE_NUMBERING_TESTS(MessengerTest);

template <class... Values>
std::string Join(Values... values) {
  std::ostringstream out;
  ((out << values << ' '), ...);
  return out.str();
}

TEST_P(MessengerTest, NotificationsArriveWithTheirFields) {
  const bool waits = true;
  const struct {
    const char* arrives;
    void (*send)();
    bool waits = false;
  } operations[] = {
      {"ConnectComplete", [] { Trel_Messenger::ConnectComplete(kPeerAddress); }, waits},
      {"RequestMaxSatellites MaxSatellitesRequested=12",
       [] { Trel_Messenger::RequestMaxSatellites(12, kPeerAddress); }},
      {"SendState eTrel_State_Priming", [] { Trel_Messenger::SendState(eTrel_State_Priming, kPeerAddress); }, waits},
      {"Prime PreRollStart=1 InPoint=2 OutPoint=3 PostRollEnd=4 ActualStartTime=5 PlaySpeed=6",
       [] { Trel_Messenger::Prime(1, 2, 3, 4, 5, 6, kPeerAddress); }},
      {"Prime PreRollStart=1 InPoint=2 OutPoint=3 PostRollEnd=4 ActualStartTime=1 PlaySpeed=6",
       [] { Trel_Messenger::Prime(1, 2, 3, 4, 6, kPeerAddress); }},
      {"StartPlayback StartAtRunningTime=7", [] { Trel_Messenger::StartPlayback(7, kPeerAddress); }},
      {"StopPlayback", [] { Trel_Messenger::StopPlayback(kPeerAddress); }},
      {"ReportPlayStartData AudioPlayStartTimestamp=1 VideoPlayStartTimestamp=2 FrameEdgeTimestamp=3",
       [] { Trel_Messenger::ReportPlayStartData(1, 2, 3, kPeerAddress); }},
      {IsCurrent() ? "LockPlaybackToSystem UniqueID=0" : "LockPlaybackToSystem SystemToLockTo=127.0.0.4",
       [] { Trel_Messenger::LockPlaybackToSystem(kOtherPeerAddress, kPeerAddress); }},
      {"SyncClock", [] { Trel_Messenger::SyncClock(kPeerAddress); }},
      {"UpdateRunningTime RunningTime=8", [] { Trel_Messenger::UpdateRunningTime(8, kPeerAddress); }, waits},
      {"LastUpdateRunningTimeValid RoundTripTime=9",
       [] { Trel_Messenger::LastUpdateRunningTimeValid(9, kPeerAddress); }, waits},
      {"ResetClock", [] { Trel_Messenger::ResetClock(kPeerAddress); }, waits},
      {"TestRunningTime Time=10", [] { Trel_Messenger::TestRunningTime(10, kPeerAddress); }},
      {"FrameEdgeInRunningTime FrameEdgeTime=11", [] { Trel_Messenger::FrameEdgeInRunningTime(11, kPeerAddress); },
       waits},
      {IsCurrent() ? "UpdateMasterClockSource UniqueID=5" : "UpdateMasterClockSource MasterClock=0.0.0.5",
       [] { Trel_Messenger::UpdateMasterClockSource(5, kPeerAddress); }},
      {"ClockLockState ClockLocked=1", [] { Trel_Messenger::ClockLockState(true, kPeerAddress); }},
      {"Disconnect", [] { Trel_Messenger::Disconnect(kPeerAddress); }},
  };
  for (const auto& operation : operations) {
    operation.send();
    EXPECT_TRUE(!operation.waits || mPeer->HasReceived()) << operation.arrives;
    EXPECT_EQ(mPeer->Next(), operation.arrives);
  }
  EXPECT_FALSE(Trel_CommManager::IsConnected(kPeerAddress));
}

TEST_P(MessengerTest, QueriesReturnTheReplyOrNothing) {
  const struct {
    const char* arrives;
    const char* reply;
    const char* answer;
    const char* answerWithoutReply; // what stood in the targets, or 0
    std::string (*ask)();
  } queries[] = {
      {"GetState", "00000003", "3 ", "7 ",
       [] {
         ETrel_State state = eTrel_State_FFRew;
         Trel_Messenger::GetState(&state, kPeerAddress);
         return Join(state);
       }},
      {"GetStartDelay", "fe000001", "4261412865 ", "9 ",
       [] {
         std::uint32_t delay = 9;
         Trel_Messenger::GetStartDelay(&delay, kPeerAddress);
         return Join(delay);
       }},
      {"GetPlayRange", "00*7 01 00*7 02 00*7 03 00*7 04 00*7 05 00000006 01", "1 2 3 4 5 6 1 ", "9 9 9 9 9 9 0 ",
       [] {
         std::int64_t times[] = {9, 9, 9, 9, 9};
         std::int32_t speed = 9;
         bool loop = false;
         Trel_Messenger::GetPlayRange(&times[0], &times[1], &times[2], &times[3], &times[4], &speed, &loop,
                                      kPeerAddress);
         return Join(times[0], times[1], times[2], times[3], times[4], speed, loop);
       }},
      {"GetPositionRunningTimeCorrelation", "00*7 01 00*7 02", "1 2 ", "9 9 ",
       [] {
         std::int64_t position = 9;
         std::int64_t runningTime = 9;
         Trel_Messenger::GetPositionRunningTimeCorrelation(&position, &runningTime, kPeerAddress);
         return Join(position, runningTime);
       }},
      {"GetCurrentRunningTime", "00*7 05", "5 ", "0 ",
       [] { return Join(Trel_Messenger::GetCurrentRunningTime(kPeerAddress)); }},
      {"GetFrameEdgeInRunningTime", "00*7 05", "5 ", "0 ",
       [] { return Join(Trel_Messenger::GetFrameEdgeInRunningTime(kPeerAddress)); }},
      {"RequestSupplyMasterClock SupplyMasterClock=1", "01", "1 ", "0 ",
       [] { return Join(Trel_Messenger::RequestSupplyMasterClock(true, kPeerAddress)); }},
  };
  for (const auto& query : queries) {
    mPeer->SetReply(FromHex(query.reply));
    EXPECT_EQ(query.ask(), query.answer) << query.arrives;
    EXPECT_EQ(mPeer->Next(), query.arrives);
    mPeer->SetHandles(false);
    EXPECT_EQ(query.ask(), query.answerWithoutReply) << query.arrives;
    mPeer->SetHandles(true);
  }
  EXPECT_FALSE(mPeer->HasReceived());
}

} // namespace
