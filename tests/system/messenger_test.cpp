#include <trel/Trel.h>

#include "tests/support/Hex.h"
#include "tests/support/NumberingTest.h"
#include "tests/support/PeerSystem.h"

#include <gmock/gmock.h>

#include <optional>
#include <sstream>
#include <string>

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

/// An operation without a result, and what of it arrives.
struct Operation {
  Text arrives;
  void (*send)();
};

Trel_System MakeSystem(std::uint32_t address, const char* name, ETCPE_SystemType type, std::int32_t order) {
  Trel_System system;
  system.SetIPAddress(address);
  system.SetSystemName(name);
  system.SetHostName("host");
  system.SetSystemType(type);
  system.SetOrderNumber(order);
  return system;
}

void SendList(std::int32_t count) {
  const Trel_System systems[] = {MakeSystem(kOtherPeerAddress, "B", eTCPE_SystemType_Satellite, 2),
                                 MakeSystem(kPeerAddress, "A", eTCPE_SystemType_Master, 1), Trel_System()};
  Trel_Messenger::SendSystemList(kPeerAddress, systems, count);
}

// Each command goes to the peer; where another system is named, it is a third one.
const Operation kNotifications[] = {
    {{R"(ConnectTo ConnectToIPAddress=127.0.0.4 ConnectToPort=0 UniqueSystemID=0 SystemName="" Hostname="" )"
      "SystemType=0 MajorVersion=0 MinorVersion=0",
      "ConnectTo ConnectToIPAddress=127.0.0.4"},
     [] { Trel_Messenger::ConnectTo(kOtherPeerAddress, kPeerAddress); }},
    {{"ConnectToComplete Success=1 ConnectionIDIP=127.0.0.4 ConnectionIDPort=28283", kNothing},
     [] { Trel_Messenger::ConnectToComplete(kOtherPeerAddress, 28283, true, kPeerAddress); }},
    {{"DoConnectToComplete Success=0", kNothing}, [] { Trel_Messenger::DoConnectToComplete(kPeerAddress); }},
    {{kNothing, "ConnectionFailed FailedConnectionIPAddress=127.0.0.4"},
     [] { Trel_Messenger::ConnectionFailed(kOtherPeerAddress, kPeerAddress); }},
    {{"DisconnectFrom UniqueSystemID=0", "DisconnectFrom DisconnectFromIPAddress=127.0.0.4"},
     [] { Trel_Messenger::DisconnectFrom(kOtherPeerAddress, kPeerAddress); }},
    {"RequestMaxSatellites MaxSatellitesRequested=12", [] { Trel_Messenger::RequestMaxSatellites(12, kPeerAddress); }},
    {R"(ListSystems Systems={IPAddress=127.0.0.4 SystemName="B" Hostname="host" SystemType=2 OrderNumber=2})"
     R"({IPAddress=127.0.0.3 SystemName="A" Hostname="host" SystemType=1 OrderNumber=1})",
     [] { SendList(2); }},
    {"ListSystems Systems=", [] { SendList(0); }},
    {"ListSystems Systems=", [] { SendList(-1); }},
    {R"(SetSystemName SystemName="Pit")", [] { Trel_Messenger::SetSystemName("Pit", kPeerAddress); }},
    {{"SetOrderNumber OrderNumber=3 UniqueID=0", "SetOrderNumber OrderNumber=3 IPAddress=127.0.0.4"},
     [] { Trel_Messenger::SetOrderNumber(3, kOtherPeerAddress, kPeerAddress); }},
    {"SetMasterSystem IPAddress=127.0.0.4", [] { Trel_Messenger::SetMasterSystem(kOtherPeerAddress, kPeerAddress); }},
    {"RequestLink Link=1", [] { Trel_Messenger::RequestLink(true, kPeerAddress); }},
    {"RequestOnline Online=1", [] { Trel_Messenger::RequestOnline(true, kPeerAddress); }},
    {"UpdateLinkState LinkState=3",
     [] { Trel_Messenger::UpdateLinkState(eTrel_LinkState_LinkedPlayable, kPeerAddress); }},
    {"UpdateOnlineState Online=1", [] { Trel_Messenger::UpdateOnlineState(true, kPeerAddress); }},
    {"Prime PreRollStart=1 InPoint=2 OutPoint=3 PostRollEnd=4 ActualStartTime=5 PlaySpeed=6",
     [] { Trel_Messenger::Prime(1, 2, 3, 4, 5, 6, kPeerAddress); }},
    {"Prime PreRollStart=1 InPoint=2 OutPoint=3 PostRollEnd=4 ActualStartTime=1 PlaySpeed=6",
     [] { Trel_Messenger::Prime(1, 2, 3, 4, 6, kPeerAddress); }},
    {"StartPlayback StartAtRunningTime=7", [] { Trel_Messenger::StartPlayback(7, kPeerAddress); }},
    {"StopPlayback", [] { Trel_Messenger::StopPlayback(kPeerAddress); }},
    {"ReportPlayStartData AudioPlayStartTimestamp=1 VideoPlayStartTimestamp=2 FrameEdgeTimestamp=3",
     [] { Trel_Messenger::ReportPlayStartData(1, 2, 3, kPeerAddress); }},
    {"SetLoopPlay LoopPlay=1", [] { Trel_Messenger::SetLoopPlay(true, kPeerAddress); }},
    {{"LockPlaybackToSystem UniqueID=0", "LockPlaybackToSystem SystemToLockTo=127.0.0.4"},
     [] { Trel_Messenger::LockPlaybackToSystem(kOtherPeerAddress, kPeerAddress); }},
    {"SyncClock", [] { Trel_Messenger::SyncClock(kPeerAddress); }},
    {"TestRunningTime Time=10", [] { Trel_Messenger::TestRunningTime(10, kPeerAddress); }},
    {"UpdateCanSupplyClock CanSupplyClock=1", [] { Trel_Messenger::UpdateCanSupplyClock(true, kPeerAddress); }},
    {{"UpdateMasterClockSource UniqueID=5", "UpdateMasterClockSource MasterClock=0.0.0.5"},
     [] { Trel_Messenger::UpdateMasterClockSource(5, kPeerAddress); }},
    {"ClockLockState ClockLocked=1", [] { Trel_Messenger::ClockLockState(true, kPeerAddress); }},
    {"SequenceChanged IsOpened=1", [] { Trel_Messenger::NotifySequenceChanged(kPeerAddress, true); }},
    {"SequenceChanged IsOpened=0", [] { Trel_Messenger::NotifySequenceChanged(kPeerAddress, false); }},
    {"SetCurrentSelection InTime=2 OutTime=3 PreRollStartTime=1 PostRollStopTime=4 PlayStartMarkerTime=5 "
     "PreRollEnabled=1 PostRollEnabled=0 UpdateVideoTo=2",
     [] {
       Trel_Messenger::SetCurrentSelection(1, 2, 3, 4, 5, true, false,
                                           Trel_Cmd_SetCurrentSelection::eUpdateVideoTo_Default, kPeerAddress);
     }},
    {"UpdateVideo UpdateVideoLocation=1 UpdateCounters=1", [] { Trel_Messenger::UpdateVideo(1, true, kPeerAddress); }},
    {"VideoReferenceFormat VideoReferenceFormat=2",
     [] { Trel_Messenger::VideoReferenceFormat(eTrel_VideoReferenceFormat_PAL, kPeerAddress); }},
    {"VideoReferenceAvailable VideoRefAvailable=1",
     [] { Trel_Messenger::VideoReferenceAvailable(true, kPeerAddress); }},
    {"TrackIsSoloed TrackIsSoloed=1", [] { Trel_Messenger::TrackIsSoloed(true, kPeerAddress); }},
    {"SoloAllTracks Solo=1", [] { Trel_Messenger::SoloAllTracks(true, kPeerAddress); }},
    {"RequestGroupEnable Group=2 Enable=1",
     [] { Trel_Messenger::RequestGroupEnable(eTrel_Group_2, true, kPeerAddress); }},
    {"UpdateGroupEnable Enable=1,0,1,0",
     [] {
       const bool enables[] = {true, false, true, false};
       Trel_Messenger::UpdateGroupEnable(enables, kPeerAddress);
     }},
    {R"(DialogOnScreen DialogCode=4 DialogMsg="Disk full" DialogType=3)",
     [] { Trel_Messenger::DialogOnScreen(eTrel_DialogType_FerrowError, "Disk full", kPeerAddress); }},
    {"Disconnect", [] { Trel_Messenger::Disconnect(kPeerAddress); }},
};

const Operation kWaitingCommands[] = {
    {"ConnectComplete", [] { Trel_Messenger::ConnectComplete(kPeerAddress); }},
    {{"SystemInControl UniqueID=7", "SystemInControl SystemInControl=0.0.0.7"},
     [] { Trel_Messenger::SendSystemInControl(7, kPeerAddress); }},
    {"SendState eTrel_State_Priming", [] { Trel_Messenger::SendState(eTrel_State_Priming, kPeerAddress); }},
    {"UpdateSystemIsRecording SystemIsRecording=1", [] { Trel_Messenger::UpdateRecordState(true, kPeerAddress); }},
    {"UpdateRunningTime RunningTime=8", [] { Trel_Messenger::UpdateRunningTime(8, kPeerAddress); }},
    {"LastUpdateRunningTimeValid RoundTripTime=9", [] { Trel_Messenger::LastUpdateRunningTimeValid(9, kPeerAddress); }},
    {"ResetClock", [] { Trel_Messenger::ResetClock(kPeerAddress); }},
    {"FrameEdgeInRunningTime FrameEdgeTime=11", [] { Trel_Messenger::FrameEdgeInRunningTime(11, kPeerAddress); }},
    {"OKDialog", [] { Trel_Messenger::OKDialog(kPeerAddress); }},
    {"CancelDialog", [] { Trel_Messenger::CancelDialog(kPeerAddress); }},
};

/// A query and its outcome with a reply, without a valid one, and before Initialize. Targets are set to 9, to true or
/// to a text, so that one that stays untouched shows.
struct Query {
  const char* arrives;
  const char* reply;
  const char* answer;
  const char* withoutReply;
  std::string (*ask)();
  const char* notInitialized = nullptr; // where it differs

  const char* NotInitialized() const { return notInitialized != nullptr ? notInitialized : withoutReply; }
};

const Query kQueries[] = {
    {"GetName", "506974 00*27", "Pit ", " ",
     [] {
       char name[30] = "untouched";
       Trel_Messenger::GetSatelliteName(name, kPeerAddress);
       return Join(name);
     },
     "untouched "},
    {"GetName", "78*30", "xxxxxxxxxxxxxxxxxxxxxxxxxxxxx ", " ",
     [] {
       char name[30] = "untouched";
       Trel_Messenger::GetSatelliteName(name, kPeerAddress);
       return Join(name);
     },
     "untouched "},
    {"GetSystemInformation", "506974 00*27 686f7374 00*252 00000002 80000005 00000007", "Pit host 2 2147483653 ",
     "untouched untouched 9 9 ",
     [] {
       char name[30] = "untouched";
       char hostName[256] = "untouched";
       auto type = static_cast<ETCPE_SystemType>(9);
       std::uint32_t order = 9;
       Trel_Messenger::GetSystemInformation(name, hostName, &type, &order, kPeerAddress);
       return Join(name, hostName, type, order);
     }},
    {"GetType", "00000002", "2 ", "0 ", [] { return Join(Trel_Messenger::GetType(kPeerAddress)); }},
    {"RequestControl", "01", "1 ", "0 ", [] { return Join(Trel_Messenger::RequestControl(kPeerAddress)); }, "1 "},
    {"RequestControl", "00", "0 ", "0 ", [] { return Join(Trel_Messenger::RequestControl(kPeerAddress)); }, "1 "},
    {"GetState", "00000003", "3 ", "9 ",
     [] {
       auto state = static_cast<ETrel_State>(9);
       Trel_Messenger::GetState(&state, kPeerAddress);
       return Join(state);
     }},
    {"GetStartDelay", "fe000001", "4261412865 ", "9 ",
     [] {
       std::uint32_t delay = 9;
       Trel_Messenger::GetStartDelay(&delay, kPeerAddress);
       return Join(delay);
     }},
    {"GetPlayRange", "00*7 01 00*7 02 00*7 03 00*7 04 00*7 05 00000006 00", "1 2 3 4 5 6 0 ", "9 9 9 9 9 9 1 ",
     [] {
       std::int64_t times[] = {9, 9, 9, 9, 9};
       std::int32_t speed = 9;
       bool loop = true;
       Trel_Messenger::GetPlayRange(&times[0], &times[1], &times[2], &times[3], &times[4], &speed, &loop, kPeerAddress);
       return Join(times[0], times[1], times[2], times[3], times[4], speed, loop);
     }},
    {"GetLoopPlay", "01", "1 ", "0 ", [] { return Join(Trel_Messenger::GetLoopPlay(kPeerAddress)); }},
    {"GetLoopPlay", "02", "0 ", "0 ", [] { return Join(Trel_Messenger::GetLoopPlay(kPeerAddress)); }},
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
    {"GetDocumentStartAndLength", "00*7 01 00*7 02", "1 2 ", "9 9 ",
     [] {
       std::int64_t start = 9;
       std::int64_t length = 9;
       Trel_Messenger::GetDocumentStartAndLength(&start, &length, kPeerAddress);
       return Join(start, length);
     }},
    {"GetProjectInfo", "00000003 00000001 00000002 00 01 00000004", "1 2 3 0 1 4 ", "9 9 9 1 1 9 ",
     [] {
       auto format = static_cast<ETrel_VideoFormat>(9);
       ETrel_PlayRate rates[] = {static_cast<ETrel_PlayRate>(9), static_cast<ETrel_PlayRate>(9)};
       bool flags[] = {true, true};
       auto reference = static_cast<ETrel_VideoReferenceFormat>(9);
       Trel_Messenger::GetProjectInfo(&format, &rates[0], &rates[1], &flags[0], &flags[1], &reference, kPeerAddress);
       return Join(format, rates[0], rates[1], flags[0], flags[1], reference);
     }},
    // The peer has set both flags.
    {"GetCurrentSelection", "00*7 01 00*7 02 00*7 03 00*7 04 00*7 05 01 01", "1 2 3 4 5 0 0 ", "9 9 9 9 9 1 1 ",
     [] {
       std::int64_t times[] = {9, 9, 9, 9, 9};
       bool flags[] = {true, true};
       Trel_Messenger::GetCurrentSelection(&times[0], &times[1], &times[2], &times[3], &times[4], &flags[0], &flags[1],
                                           kPeerAddress);
       return Join(times[0], times[1], times[2], times[3], times[4], flags[0], flags[1]);
     }},
    {"GetTrackIsSoloed", "01", "1 ", "0 ", [] { return Join(Trel_Messenger::GetTrackIsSoloed(kPeerAddress)); }},
};

/// Sends a command with the fields of a payload; returns the error and what the command holds of the reply.
template <class Command>
std::string SendDirectly(std::string payload) {
  Command command;
  command.SetIPAddressTo(kPeerAddress);
  char* cursor = payload.data();
  command.PrepareReceiveCommand(&cursor);
  Trel_CommManager::SendCommand(&command);
  std::ostringstream reply;
  command.GetReplyDebugInfo(reply);
  return Join(command.GetError()) + reply.str();
}

constexpr Text kSent = "0 ";
constexpr Text kNotSendable = "13 ";
constexpr Text kRefusedInLegacy{"0 ", "9 "};

/// Some classes without an operation of the messenger, and those that a numbering refuses or a receiver drops.
const struct {
  Text arrives;
  const char* payload;
  const char* reply;
  Text answer;
  std::string (*send)(std::string payload);
} kDirectCommands[] = {
    {kNothing, "00*294", "", kNotSendable, &SendDirectly<Trel_Cmd_Connect>},
    {{"AllConnectionsComplete", kNothing}, "", "", kRefusedInLegacy, &SendDirectly<Trel_Cmd_AllConnectionsComplete>},
    {{kNothing, "ConnectionFailed FailedConnectionIPAddress=127.0.0.4"},
     "0400007f",
     "",
     kSent,
     &SendDirectly<Trel_Cmd_ConnectionFailed>},
    {"GetEditPlayRate", "", "00000004 01", "0 EditPlayRate=4 DropFrame=1", &SendDirectly<Trel_Cmd_GetEditPlayRate>},
    {{"GetIsMasterClock", kNothing},
     "",
     "01",
     {"0 IsMasterClock=1", "9 IsMasterClock=0"},
     &SendDirectly<Trel_Cmd_GetIsMasterClock>},
    {"Disconnect", "", "", kSent, &SendDirectly<Trel_Cmd_Disconnect>},
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

TEST_P(MessengerTest, SendersGiveUpAfterTheTimeOut) {
  Trel_CommManager::Terminate();
  EXPECT_EQ(mPeer->Next(), "Disconnect");
  SPSSetStartupOption("SynchronousTimeoutMilliseconds", "20");
  Start();
  SPSSetStartupOption("SynchronousTimeoutMilliseconds", nullptr);
  mPeer->Hold(true);
  for (const Query& query : kQueries) {
    EXPECT_EQ(query.ask(), query.withoutReply) << query.arrives;
  }
  for (const Operation& command : kWaitingCommands) {
    command.send();
  }
  mPeer->Hold(false);
  for (const Query& query : kQueries) {
    EXPECT_EQ(mPeer->Next(), query.arrives);
  }
  for (const Operation& command : kWaitingCommands) {
    EXPECT_EQ(mPeer->Next(), command.arrives.InForce());
  }
}

TEST_P(MessengerTest, OtherClassesAreSentDirectly) {
  for (const auto& [arrives, payload, reply, answer, send] : kDirectCommands) {
    mPeer->SetReply(FromHex(reply));
    EXPECT_EQ(send(FromHex(payload)), answer.InForce()) << arrives.current;
    if (const char* text = arrives.InForce()) {
      EXPECT_EQ(mPeer->Next(), text);
    }
  }
  EXPECT_FALSE(Trel_CommManager::IsConnected(kPeerAddress));
  EXPECT_FALSE(mPeer->HasReceived());
}

} // namespace
