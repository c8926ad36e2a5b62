#include <trel/Trel.h>

#include "tests/support/Hex.h"
#include "tests/support/NumberingTest.h"
#include "tests/support/PeerSystem.h"

#include <gmock/gmock.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

class MessengerTest : public NumberingTest {
protected:
  void SetUp() override {
    NumberingTest::SetUp();
    mPeer.emplace(kPeerAddress);
    ASSERT_EQ(mPeer->Status(), 0);
    Start();
  }
  void TearDown() override {
    mPeer.reset();
    Trel_CommManager::Terminate();
    NumberingTest::TearDown();
  }

  void Start() {
    Trel_CommPreferences preferences = TestPreferences(kHostAddress);
    Trel_CommManager::SetSystemName("Stage");
    ASSERT_EQ(Trel_CommManager::Initialize(&preferences, nullptr), 0);
    Connect();
  }
  void Connect() {
    ASSERT_TRUE(Trel_CommManager::Connect(kPeerAddress));
    ASSERT_THAT(mPeer->Next(), testing::AllOf(testing::StartsWith("Connect "), testing::HasSubstr("\"Stage\"")));
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

/// A text that depends on the numbering, or does not.
struct Text {
  const char* current;
  const char* legacy;
  constexpr Text(const char* both) : current(both), legacy(both) {}
  constexpr Text(const char* inCurrent, const char* inLegacy) : current(inCurrent), legacy(inLegacy) {}
  const char* InForce() const { return TCPE_CommManager::GetSupportsMarlo11() ? current : legacy; }
};
constexpr const char* kNothing = nullptr;

using Messenger = Trel_Messenger;
/// Calls an operation without a result for the peer.
template <class... Parameters, class... Values>
std::function<void()> Send(void (*operation)(Parameters...), Values... values) {
  return [=] { operation(values..., kPeerAddress); };
}
/// An operation without a result, and what of it arrives.
struct Operation {
  Text arrives;
  std::function<void()> send;
};

std::function<void()> SendList(std::int32_t count) {
  return [count] {
    Trel_System system;
    system.SetIPAddress(kOtherPeerAddress);
    system.SetSystemName("B");
    system.SetHostName("host");
    system.SetSystemType(eTCPE_SystemType_Satellite);
    system.SetOrderNumber(2);
    const Trel_System systems[] = {system, Trel_System(), system};
    Messenger::SendSystemList(kPeerAddress, systems, count);
  };
}

constexpr bool kEnables[] = {true, false, true, false};

// Each command goes to the peer; where another system is named, it is a third one.
const Operation kNotifications[] = {
    {{R"(ConnectTo ConnectToIPAddress=127.0.0.4 ConnectToPort=0 UniqueSystemID=0 SystemName="" Hostname="" )"
      "SystemType=0 MajorVersion=0 MinorVersion=0",
      "ConnectTo ConnectToIPAddress=127.0.0.4"},
     Send(&Messenger::ConnectTo, kOtherPeerAddress)},
    {{"ConnectToComplete Success=1 ConnectionIDIP=127.0.0.4 ConnectionIDPort=28283", kNothing},
     Send(&Messenger::ConnectToComplete, kOtherPeerAddress, std::uint16_t{28283}, true)},
    {{"DoConnectToComplete Success=0", kNothing}, Send(&Messenger::DoConnectToComplete)},
    {{kNothing, "ConnectionFailed FailedConnectionIPAddress=127.0.0.4"},
     Send(&Messenger::ConnectionFailed, kOtherPeerAddress)},
    {{"DisconnectFrom UniqueSystemID=0", "DisconnectFrom DisconnectFromIPAddress=127.0.0.4"},
     Send(&Messenger::DisconnectFrom, kOtherPeerAddress)},
    {"RequestMaxSatellites MaxSatellitesRequested=12", Send(&Messenger::RequestMaxSatellites, 12)},
    {R"(ListSystems Systems={IPAddress=127.0.0.4 SystemName="B" Hostname="host" SystemType=2 OrderNumber=2})"
     R"({IPAddress=0.0.0.0 SystemName="" Hostname="" SystemType=0 OrderNumber=0})",
     SendList(2)},
    {"ListSystems Systems=", SendList(0)},
    {"ListSystems Systems=", SendList(-1)},
    {R"(SetSystemName SystemName="Pit")", Send(&Messenger::SetSystemName, "Pit")},
    {{"SetOrderNumber OrderNumber=3 UniqueID=0", "SetOrderNumber OrderNumber=3 IPAddress=127.0.0.4"},
     Send(&Messenger::SetOrderNumber, 3, kOtherPeerAddress)},
    {"SetMasterSystem IPAddress=127.0.0.4", Send(&Messenger::SetMasterSystem, kOtherPeerAddress)},
    {"RequestLink Link=1", Send(&Messenger::RequestLink, true)},
    {"RequestOnline Online=1", Send(&Messenger::RequestOnline, true)},
    {"UpdateLinkState LinkState=3", Send(&Messenger::UpdateLinkState, eTrel_LinkState_LinkedPlayable)},
    {"UpdateOnlineState Online=1", Send(&Messenger::UpdateOnlineState, true)},
    {"Prime PreRollStart=1 InPoint=2 OutPoint=3 PostRollEnd=4 ActualStartTime=5 PlaySpeed=6",
     [] { Messenger::Prime(1, 2, 3, 4, 5, 6, kPeerAddress); }},
    {"Prime PreRollStart=1 InPoint=2 OutPoint=3 PostRollEnd=4 ActualStartTime=1 PlaySpeed=6",
     [] { Messenger::Prime(1, 2, 3, 4, 6, kPeerAddress); }},
    {"StartPlayback StartAtRunningTime=7", Send(&Messenger::StartPlayback, 7)},
    {"StopPlayback", Send(&Messenger::StopPlayback)},
    {"ReportPlayStartData AudioPlayStartTimestamp=1 VideoPlayStartTimestamp=2 FrameEdgeTimestamp=3",
     Send(&Messenger::ReportPlayStartData, 1, 2, 3)},
    {"SetLoopPlay LoopPlay=1", Send(&Messenger::SetLoopPlay, true)},
    {{"LockPlaybackToSystem UniqueID=0", "LockPlaybackToSystem SystemToLockTo=127.0.0.4"},
     Send(&Messenger::LockPlaybackToSystem, kOtherPeerAddress)},
    {"SyncClock", Send(&Messenger::SyncClock)},
    {"TestRunningTime Time=10", Send(&Messenger::TestRunningTime, 10)},
    {"UpdateCanSupplyClock CanSupplyClock=1", Send(&Messenger::UpdateCanSupplyClock, true)},
    {{"UpdateMasterClockSource UniqueID=5", "UpdateMasterClockSource MasterClock=0.0.0.5"},
     Send(&Messenger::UpdateMasterClockSource, 5U)},
    {"ClockLockState ClockLocked=1", Send(&Messenger::ClockLockState, true)},
    {"SequenceChanged IsOpened=1", [] { Messenger::NotifySequenceChanged(kPeerAddress, true); }},
    {"SequenceChanged IsOpened=0", [] { Messenger::NotifySequenceChanged(kPeerAddress, false); }},
    {"SetCurrentSelection InTime=2 OutTime=3 PreRollStartTime=1 PostRollStopTime=4 PlayStartMarkerTime=5 "
     "PreRollEnabled=1 PostRollEnabled=0 UpdateVideoTo=2",
     Send(&Messenger::SetCurrentSelection, 1, 2, 3, 4, 5, true, false,
          Trel_Cmd_SetCurrentSelection::eUpdateVideoTo_Default)},
    {"UpdateVideo UpdateVideoLocation=1 UpdateCounters=1", Send(&Messenger::UpdateVideo, 1, true)},
    {"VideoReferenceFormat VideoReferenceFormat=2",
     Send(&Messenger::VideoReferenceFormat, eTrel_VideoReferenceFormat_PAL)},
    {"VideoReferenceAvailable VideoRefAvailable=1", Send(&Messenger::VideoReferenceAvailable, true)},
    {"TrackIsSoloed TrackIsSoloed=1", Send(&Messenger::TrackIsSoloed, true)},
    {"SoloAllTracks Solo=1", Send(&Messenger::SoloAllTracks, true)},
    {"RequestGroupEnable Group=2 Enable=1", Send(&Messenger::RequestGroupEnable, eTrel_Group_2, true)},
    {"UpdateGroupEnable Enable=1,0,1,0", Send(&Messenger::UpdateGroupEnable, kEnables)},
    {R"(DialogOnScreen DialogCode=4 DialogMsg="Disk full" DialogType=3)",
     Send(&Messenger::DialogOnScreen, eTrel_DialogType_FerrowError, "Disk full")},
    {"Disconnect", Send(&Messenger::Disconnect)},
};

const Operation kWaitingCommands[] = {
    {"ConnectComplete", Send(&Messenger::ConnectComplete)},
    {{"SystemInControl UniqueID=7", "SystemInControl SystemInControl=0.0.0.7"},
     Send(&Messenger::SendSystemInControl, 7)},
    {"SendState eTrel_State_Priming", Send(&Messenger::SendState, eTrel_State_Priming)},
    {"UpdateSystemIsRecording SystemIsRecording=1", Send(&Messenger::UpdateRecordState, true)},
    {"UpdateRunningTime RunningTime=8", Send(&Messenger::UpdateRunningTime, 8)},
    {"LastUpdateRunningTimeValid RoundTripTime=9", Send(&Messenger::LastUpdateRunningTimeValid, 9)},
    {"ResetClock", Send(&Messenger::ResetClock)},
    {"FrameEdgeInRunningTime FrameEdgeTime=11", Send(&Messenger::FrameEdgeInRunningTime, 11)},
    {"OKDialog", Send(&Messenger::OKDialog)},
    {"CancelDialog", Send(&Messenger::CancelDialog)},
};

/// What a query takes: the address of the peer, or a target, which is set to 9, to true or to a text, so that one that
/// stays untouched shows.
template <class Parameter>
struct Argument {
  std::uint32_t operator()() const { return kPeerAddress; }
  std::string Shown() const { return ""; }
};
template <class Value>
struct Argument<Value*> {
  Value value = static_cast<Value>(9);
  Value* operator()() { return &value; }
  std::string Shown() const { return Join(value); }
};
template <>
struct Argument<char*> {
  char text[256] = "untouched";
  char* operator()() { return text; }
  std::string Shown() const { return Join(text); }
};
/// The outcome of a query.
template <class Result, class... Parameters>
std::function<std::string()> Ask(Result (*query)(Parameters...)) {
  return [query] {
    std::tuple<Argument<Parameters>...> arguments;
    const auto ask = [query](auto&... argument) {
      if constexpr (std::is_void_v<Result>) {
        query(argument()...);
        return (argument.Shown() + ...);
      } else {
        return Join(query(argument()...));
      }
    };
    return std::apply(ask, arguments);
  };
}

/// A query and its outcome with a reply, without a valid one, and before Initialize.
struct Query {
  const char* arrives;
  const char* reply;
  const char* answer;
  const char* withoutReply;
  std::function<std::string()> ask;
  const char* notInitialized = nullptr; // where it differs

  const char* NotInitialized() const { return notInitialized != nullptr ? notInitialized : withoutReply; }
};

const Query kQueries[] = {
    {"GetName", "506974 00*27", "Pit ", " ", Ask(&Messenger::GetSatelliteName), "untouched "},
    {"GetName", "78*30", "xxxxxxxxxxxxxxxxxxxxxxxxxxxxx ", " ", Ask(&Messenger::GetSatelliteName), "untouched "},
    {"GetSystemInformation", "506974 00*27 686f7374 00*252 00000002 80000005 00000007", "Pit host 2 2147483653 ",
     "untouched untouched 9 9 ", Ask(&Messenger::GetSystemInformation)},
    {"GetType", "00000002", "2 ", "0 ", Ask(&Messenger::GetType)},
    {"RequestControl", "01", "1 ", "0 ", Ask(&Messenger::RequestControl), "1 "},
    {"RequestControl", "00", "0 ", "0 ", Ask(&Messenger::RequestControl), "1 "},
    {"GetState", "00000003", "3 ", "9 ", Ask(&Messenger::GetState)},
    {"GetStartDelay", "fe000001", "4261412865 ", "9 ", Ask(&Messenger::GetStartDelay)},
    {"GetPlayRange", "00*7 01 00*7 02 00*7 03 00*7 04 00*7 05 00000006 00", "1 2 3 4 5 6 0 ", "9 9 9 9 9 9 1 ",
     Ask(&Messenger::GetPlayRange)},
    {"GetLoopPlay", "01", "1 ", "0 ", Ask(&Messenger::GetLoopPlay)},
    {"GetLoopPlay", "02", "0 ", "0 ", Ask(&Messenger::GetLoopPlay)},
    {"GetPositionRunningTimeCorrelation", "00*7 01 00*7 02", "1 2 ", "9 9 ",
     Ask(&Messenger::GetPositionRunningTimeCorrelation)},
    {"GetCurrentRunningTime", "00*7 05", "5 ", "0 ", Ask(&Messenger::GetCurrentRunningTime)},
    {"GetFrameEdgeInRunningTime", "00*7 05", "5 ", "0 ", Ask(&Messenger::GetFrameEdgeInRunningTime)},
    {"RequestSupplyMasterClock SupplyMasterClock=1", "01", "1 ", "0 ",
     [] { return Join(Messenger::RequestSupplyMasterClock(true, kPeerAddress)); }},
    {"GetDocumentStartAndLength", "00*7 01 00*7 02", "1 2 ", "9 9 ", Ask(&Messenger::GetDocumentStartAndLength)},
    {"GetProjectInfo", "00000003 00000001 00000002 00 01 00000004", "1 2 3 0 1 4 ", "9 9 9 1 1 9 ",
     Ask(&Messenger::GetProjectInfo)},
    // The peer has set both flags.
    {"GetCurrentSelection", "00*7 01 00*7 02 00*7 03 00*7 04 00*7 05 01 01", "1 2 3 4 5 0 0 ", "9 9 9 9 9 1 1 ",
     Ask(&Messenger::GetCurrentSelection)},
    {"GetTrackIsSoloed", "01", "1 ", "0 ", Ask(&Messenger::GetTrackIsSoloed)},
};

TEST(MessengerBeforeInitializeTest, SendsNothingAndAnswersDefaults) {
  for (const Operation& notification : kNotifications) {
    notification.send();
  }
  for (const Operation& command : kWaitingCommands) {
    command.send();
  }
  for (const Query& query : kQueries) {
    EXPECT_EQ(query.ask(), query.NotInitialized()) << query.arrives;
  }
}

// Commands arrive in order: that of the next row shows that nothing came where nothing is to come.
TEST_P(MessengerTest, NotificationsArriveWithTheirFields) {
  for (const auto& [arrives, send] : kNotifications) {
    send();
    if (const char* text = arrives.InForce()) {
      EXPECT_EQ(mPeer->Next(), text);
    }
  }
  EXPECT_FALSE(Trel_CommManager::IsConnected(kPeerAddress));
  EXPECT_FALSE(mPeer->HasReceived());
  EXPECT_EQ(mPeer->GetCounters().unknownCommands, IsCurrent() ? 1U : 0U);
}

TEST_P(MessengerTest, WaitingCommandsReturnWhenTheyAreAcknowledged) {
  for (const auto& [arrives, send] : kWaitingCommands) {
    send();
    EXPECT_TRUE(mPeer->HasReceived()) << arrives.InForce();
    EXPECT_EQ(mPeer->Next(), arrives.InForce());
  }
}

TEST_P(MessengerTest, QueriesReturnTheReplyOrNothing) {
  for (const Query& query : kQueries) {
    SCOPED_TRACE(query.arrives);
    mPeer->SetAnswer(PeerSystem::Answer::reply);
    mPeer->SetReply(FromHex(query.reply));
    EXPECT_EQ(query.ask(), query.answer);
    EXPECT_EQ(mPeer->Next(), query.arrives);
    mPeer->SetAnswer(PeerSystem::Answer::error);
    EXPECT_EQ(query.ask(), query.withoutReply) << "with an error";
    mPeer->SetAnswer(PeerSystem::Answer::leave);
    EXPECT_EQ(query.ask(), query.withoutReply) << "when the peer leaves";
    EXPECT_EQ(mPeer->Next(), query.arrives);
    EXPECT_EQ(query.ask(), query.withoutReply) << "when the peer is gone";
    mPeer->SetAnswer(PeerSystem::Answer::reply);
    Connect();
  }
  EXPECT_FALSE(mPeer->HasReceived());
}

TEST_P(MessengerTest, ManyThreadsCallAllOperationsAtOnce) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 5;
  mPeer->SetReply(std::string(600, '\0'));
  std::map<std::string, int> expected;
  std::vector<std::function<void()>> calls;
  const auto add = [&](const char* arrives, std::function<void()> call) {
    if (arrives != kNothing && std::string(arrives) != "Disconnect") {
      expected[arrives] += kThreads * kRounds;
      calls.push_back(std::move(call));
    }
  };
  for (const Query& query : kQueries) {
    add(query.arrives, query.ask);
  }
  for (const auto& operations :
       {std::span<const Operation>(kNotifications), std::span<const Operation>(kWaitingCommands)}) {
    for (const auto& [arrives, send] : operations) {
      add(arrives.InForce(), send);
    }
  }
  std::vector<std::jthread> threads;
  for (std::size_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&calls, thread] {
      for (std::size_t call = 0; call < kRounds * calls.size(); ++call) {
        calls[(call + thread / 2 * calls.size() / kThreads) % calls.size()]();
      }
    });
  }
  threads.clear();
  std::map<std::string, int> arrived;
  for (std::size_t count = 0; count < kThreads * kRounds * calls.size(); ++count) {
    ++arrived[mPeer->Next()];
  }
  EXPECT_EQ(arrived, expected);
  EXPECT_FALSE(mPeer->HasReceived());
}

TEST_P(MessengerTest, ASenderGivesUpAfterTheTimeOut) {
  Trel_CommManager::Terminate();
  EXPECT_EQ(mPeer->Next(), "Disconnect");
  SPSSetStartupOption("SynchronousTimeoutMilliseconds", "20");
  Start();
  SPSSetStartupOption("SynchronousTimeoutMilliseconds", nullptr);
  mPeer->Hold(true);
  const Query& query = kQueries[0];
  EXPECT_EQ(query.ask(), query.withoutReply);
  mPeer->Hold(false);
  EXPECT_EQ(mPeer->Next(), query.arrives);
}

TEST_P(MessengerTest, OtherClassesAreSentDirectly) {
  const auto send = [](auto&& command) {
    command.SetIPAddressTo(kPeerAddress);
    Trel_CommManager::SendCommand(&command);
    return command.GetError();
  };
  EXPECT_EQ(send(Trel_Cmd_Connect()), eTCPE_CommErr_NotSendable);
  EXPECT_EQ(send(Trel_Cmd_AllConnectionsComplete()),
            IsCurrent() ? eTCPE_CommErr_None : eTCPE_CommErr_NotInThisNumbering);
  if (IsCurrent()) {
    EXPECT_EQ(mPeer->Next(), "AllConnectionsComplete");
  }
  mPeer->SetReply(FromHex("00000004 01"));
  Trel_Cmd_GetEditPlayRate rate;
  EXPECT_EQ(send(rate), eTCPE_CommErr_None);
  EXPECT_EQ(mPeer->Next(), "GetEditPlayRate");
  EXPECT_TRUE(rate.GetEditPlayRate() == static_cast<ETrel_PlayRate>(4) && rate.GetDropFrame());
  EXPECT_EQ(send(Trel_Cmd_Disconnect()), eTCPE_CommErr_None);
  EXPECT_EQ(mPeer->Next(), "Disconnect");
  EXPECT_FALSE(Trel_CommManager::IsConnected(kPeerAddress));
}

} // namespace
