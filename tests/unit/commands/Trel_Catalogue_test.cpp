#include "link/commands/Trel_Catalogue.h"

#include <trel/Trel.h>

#include "tests/support/Hex.h"
#include "tests/support/NumberingTest.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

/// What a class looks like from outside. Traits: s synchronous, q not logged, c in the current numbering alone, n
/// without a number of its own; a digit is the payload revision, 0 without one.
struct Row {
  std::int32_t current;
  std::int32_t legacy;
  const char* name;
  const char* traits;
  const char* command; // bytes, and the debug text of a command that has read them
  const char* commandText;
  const char* reply = "";
  const char* replyText = "";
  const char* legacyBytes = nullptr; // where the payload is another one in the legacy numbering
  const char* legacyText = nullptr;

  bool Has(char trait) const { return std::string(traits).find(trait) != std::string::npos; }
};

const Row kRows[] = {
    {2, 2, "DiscoveryRequest", "", "", ""},
    {3, 3, "DiscoverMasterSystems", "", "", ""},
    {5, 18, "Connect", "", "81020304 00000005 416c 00*28 686f7374 00*252",
     R"(UniqueIDFrom=-2130574588 UniqueIDTo=5 SatelliteName="Al" Hostname="host")", "", "", "416c 00*28 686f7374 00*26",
     R"(SatelliteName="Al" Hostname="host")"},
    {6, 4, "ConnectComplete", "s", "", ""},
    {7, 49, "ConnectTo", "", "0201a8c0 7a6e 00000007 416c 00*28 686f7374 00*252 00000002 04 01",
     R"(ConnectToIPAddress=192.168.1.2 ConnectToPort=28282 UniqueSystemID=7 SystemName="Al" Hostname="host" )"
     "SystemType=2 MajorVersion=4 MinorVersion=1",
     "", "", "0201a8c0", "ConnectToIPAddress=192.168.1.2"},
    {8, 76, "ConnectToComplete", "c1", "01 0201a8c0 7a6e",
     "Success=1 ConnectionIDIP=192.168.1.2 ConnectionIDPort=28282"},
    {9, 73, "DoConnectTo", "c1", "416c 00*28 686f7374 00*252 00000007 00000008",
     R"(SystemName="Al" Hostname="host" UniqueSystemIDFrom=7 UniqueSystemIDTo=8)"},
    {10, 74, "DoConnectToComplete", "c", "01", "Success=1"},
    {11, 75, "AllConnectionsComplete", "c", "", ""},
    {12, 19, "Disconnect", "n", "", ""},
    {13, 50, "DisconnectFrom", "", "0a000001", "UniqueSystemID=167772161", "", "", "0100000a",
     "DisconnectFromIPAddress=10.0.0.1"},
    {14, 5, "Prime", "", "00*7 01 00*7 02 00*7 03 00*7 04 ff*8 fffffff0",
     "PreRollStart=1 InPoint=2 OutPoint=3 PostRollEnd=4 ActualStartTime=-1 PlaySpeed=-16"},
    {15, 6, "SyncClock", "", "", ""},
    {16, 7, "StartPlayback", "", "0102030405060708", "StartAtRunningTime=72623859790382856"},
    {17, 8, "StopPlayback", "", "", ""},
    {18, 9, "UpdateLinkState", "", "00000003", "LinkState=3"},
    {19, 10, "RequestLink", "", "01", "Link=1"},
    {20, 11, "RequestControl", "s", "", "", "01", "HasControl=1"},
    {21, 12, "SystemInControl", "s", "0a000001", "UniqueID=167772161", "", "", "0100000a", "SystemInControl=10.0.0.1"},
    {22, 13, "UpdateVideo", "1", "00*6 0102 01", "UpdateVideoLocation=258 UpdateCounters=1"},
    {23, 14, "ImAlive", "", "", ""},
    {24, 15, "SetCurrentSelection", "1", "00*7 01 00*7 02 00*7 03 00*7 04 00*7 05 01 01 00000007",
     "InTime=1 OutTime=2 PreRollStartTime=3 PostRollStopTime=4 PlayStartMarkerTime=5 PreRollEnabled=1 "
     "PostRollEnabled=1 UpdateVideoTo=7"},
    {25, 16, "GetCurrentSelection", "s", "", "", "00*7 01 00*7 02 00*7 03 00*7 04 00*7 05 01 01",
     "PreRollStartTime=1 InTime=2 OutTime=3 PostRollStopTime=4 PlayStartMarkerTime=5 PreRollEnabled=1 "
     "PostRollEnabled=1"},
    {26, 17, "GetDocumentStartAndLength", "s", "", "", "ff*8 00*6 0102", "Start=-1 Length=258"},
    {27, 20, "GetName", "s", "", "", "416c 00*28", R"(Name="Al")"},
    {28, 21, "GetStartDelay", "s", "", "", "fe000001", "StartDelay=4261412865"},
    {29, 22, "ListSystems", "1",
     "00000002 0201a8c0 416c 00*28 686f7374 00*26 00000001 00000005 0301a8c0 00*60 00000002 ffffffff",
     R"(Systems={IPAddress=192.168.1.2 SystemName="Al" Hostname="host" SystemType=1 OrderNumber=5})"
     R"({IPAddress=192.168.1.3 SystemName="" Hostname="" SystemType=2 OrderNumber=-1})"},
    {30, 23, "UpdateRunningTime", "sq", "8000000000000001", "RunningTime=-9223372036854775807"},
    {31, 24, "LastUpdateRunningTimeValid", "sq", "00*6 03e9", "RoundTripTime=1001"},
    {32, 25, "FrameEdgeInRunningTime", "s", "00*6 8235", "FrameEdgeTime=33333"},
    {33, 26, "ResetClock", "s", "", ""},
    {34, 28, "ReportPlayStartData", "", "00*7 01 00*7 02 00*7 03",
     "AudioPlayStartTimestamp=1 VideoPlayStartTimestamp=2 FrameEdgeTimestamp=3"},
    {35, 29, "SendState", "s", "00000006", "eTrel_State_Play"},
    {36, 30, "ClockLockState", "", "01", "ClockLocked=1"},
    {37, 31, "GetCurrentRunningTime", "sq", "", "", "00*4 80000000", "RunningTime=2147483648"},
    {38, 32, "SetLoopPlay", "", "01", "LoopPlay=1"},
    {39, 33, "GetLoopPlay", "s", "", "", "02", "LoopPlay=2"},
    {40, 34, "GetFrameEdgeInRunningTime", "s", "", "", "00*6 0100", "FrameEdge=256"},
    {41, 35, "SequenceChanged", "", "ff*7 fe", "IsOpened=18446744073709551614"},
    {42, 36, "GetProjectRate", "s", "", "", "00000018", "ProjectRate=24"},
    {43, 37, "GetEditPlayRate", "s", "", "", "00000004 01", "EditPlayRate=4 DropFrame=1"},
    {44, 38, "GetDigitalCutRate", "s", "", "", "00000002", "DigitalCutRate=2"},
    {45, 39, "VideoReferenceFormat", "", "00000019", "VideoReferenceFormat=25"},
    {46, 40, "GetProjectInfo", "s1", "", "", "00000001 00000002 00000003 01 01 00000019",
     "DigitalCutRate=1 ProjectRate=2 EditPlayRate=3 DropFrame=1 VideoReferenceAvailable=1 VideoReferenceFormat=25"},
    {47, 41, "TrackIsSoloed", "", "01", "TrackIsSoloed=1"},
    {48, 42, "GetTrackIsSoloed", "s", "", "", "01", "TrackIsSoloed=1"},
    {49, 43, "SoloAllTracks", "", "01", "Solo=1"},
    {50, 44, "TestRunningTime", "", "00*6 0102", "Time=258"},
    {51, 45, "GetPlayRange", "s", "", "", "00*7 01 00*7 02 00*7 03 00*7 04 00*7 05 00010000 01",
     "PreRollStart=1 InPoint=2 OutPoint=3 PostRollEnd=4 ActualStartTime=5 PlaySpeed=65536 LoopPlay=1"},
    {52, 46, "RequestSupplyMasterClock", "s", "01", "SupplyMasterClock=1", "01", "Success=1"},
    {53, 47, "UpdateMasterClockSource", "", "0a000001", "UniqueID=167772161", "", "", "0100000a",
     "MasterClock=10.0.0.1"},
    {54, 48, "RequestOnline", "", "01", "Online=1"},
    {55, 52, "GetPositionRunningTimeCorrelation", "s", "", "", "00*7 01 00*7 02", "Position=1 RunningTime=2"},
    {56, 53, "GetSystemInformation", "s", "", "", "416c 00*28 686f7374 00*252 00000001 00000005 00000007",
     R"(Name="Al" Hostname="host" Type=1 OrderNumber=5 UniqueID=7)", "416c 00*28 686f7374 00*252 00000001 00000005",
     R"(Name="Al" Hostname="host" Type=1 OrderNumber=5)"},
    {57, 54, "SetOrderNumber", "", "00000005 00000007", "OrderNumber=5 UniqueID=7", "", "", "00000005 0201a8c0",
     "OrderNumber=5 IPAddress=192.168.1.2"},
    {58, 55, "GetType", "s", "", "", "00000002", "Type=2"},
    {59, 56, "LockPlaybackToSystem", "", "0a000001", "UniqueID=167772161", "", "", "0100000a",
     "SystemToLockTo=10.0.0.1"},
    {60, 57, "CancelDialog", "s", "", ""},
    {61, 58, "OKDialog", "s", "", ""},
    {62, 59, "DialogOnScreen", "2", "00000004 4869 00*254 00000003", R"(DialogCode=4 DialogMsg="Hi" DialogType=3)"},
    {63, 60, "UpdateGrouping", "", "00*64", "System=0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0"},
    {64, 61, "RequestGroupEnable", "", "00000002 01", "Group=2 Enable=1"},
    {65, 62, "UpdateGroupEnable", "", "01 00 01 00", "Enable=1,0,1,0"},
    {66, 63, "SetSystemName", "", "416c 00*28", R"(SystemName="Al")"},
    {67, 64, "SetMasterSystem", "", "0201a8c0", "IPAddress=192.168.1.2"},
    {68, 65, "UpdateOnlineState", "", "01", "Online=1"},
    {69, 66, "VideoReferenceAvailable", "", "01", "VideoRefAvailable=1"},
    {70, 67, "GetState", "s", "", "", "00000007", "State=7"},
    {71, 68, "UpdateCanSupplyClock", "", "01", "CanSupplyClock=1"},
    {72, 69, "RequestMaxSatellites", "", "000003e8", "MaxSatellitesRequested=1000"},
    {73, 70, "GetMaxSatellites", "s", "", "", "0000000b", "MaxSatellites=11"},
    {74, 71, "GetMaxSatellitesSupported", "s", "", "", "00000080", "MaxSatellitesSupported=128"},
    {75, 72, "UpdateSystemIsRecording", "s", "01", "SystemIsRecording=1"},
    {79, 79, "RequestSupplyMasterClockComplete", "sc", "01", "Success=1"},
    {80, 80, "GetIsMasterClock", "sc", "", "", "01", "IsMasterClock=1"},
    {666, 51, "ConnectionFailed", "", "0201a8c0", "FailedConnectionIPAddress=192.168.1.2"},
};

/// What older senders send, and what a command makes of it that has read the bytes of its row before.
const struct {
  const char* name;
  std::uint8_t revision;
  const char* bytes;
  const char* text;
} kOlderPayloads[] = {
    {"UpdateVideo", 0, "00*6 0809", "UpdateVideoLocation=2057 UpdateCounters=1"},
    {"SetCurrentSelection", 0, "00*7 06 00*7 07 00*7 08 00*7 09 00*7 0a",
     "InTime=6 OutTime=7 PreRollStartTime=8 PostRollStopTime=9 PlayStartMarkerTime=10 PreRollEnabled=0 "
     "PostRollEnabled=0 UpdateVideoTo=2"},
    {"GetCurrentSelection", 0, "00*7 06 00*7 07 00*7 08 00*7 09 00*7 0a",
     "PreRollStartTime=6 InTime=7 OutTime=8 PostRollStopTime=9 PlayStartMarkerTime=10 PreRollEnabled=1 "
     "PostRollEnabled=1"},
    {"GetProjectInfo", 0, "00000006 00000005 00000004 00 00",
     "DigitalCutRate=6 ProjectRate=5 EditPlayRate=4 DropFrame=0 VideoReferenceAvailable=0 VideoReferenceFormat=25"},
    {"DialogOnScreen", 0, "00000000", R"(DialogCode=0 DialogMsg="" DialogType=0)"},
    {"DialogOnScreen", 0, "00000003", R"(DialogCode=3 DialogMsg="" DialogType=2)"},
    {"DialogOnScreen", 0, "00000005", R"(DialogCode=5 DialogMsg="" DialogType=3)"},
    {"DialogOnScreen", 0, "80000000", R"(DialogCode=-2147483648 DialogMsg="" DialogType=3)"},
    {"DialogOnScreen", 1, "00000002 4e6f 00*254", R"(DialogCode=2 DialogMsg="No" DialogType=1)"},
};
constexpr std::uint8_t kNewestRevision = 2;

/// The hooks of the command, or those of the reply.
struct Hooks {
  void (TCPE_Command::*read)(char** cursor);
  void (TCPE_Command::*write)(char** cursor);
  void (TCPE_Command::*print)(std::ostream& out) const;
};
constexpr Hooks kCommandHooks{&TCPE_Command::PrepareReceiveCommand, &TCPE_Command::PrepareTransmitCommand,
                              &TCPE_Command::GetSendDebugInfo};
constexpr Hooks kReplyHooks{&TCPE_Command::PrepareReceiveReply, &TCPE_Command::PrepareTransmitReply,
                            &TCPE_Command::GetReplyDebugInfo};

/// Runs a hook over a copy of the bytes that is exactly as long, so that a sanitizer sees whoever leaves it.
std::string Apply(TCPE_Command& command, void (TCPE_Command::*hook)(char**), const std::string& bytes,
                  std::size_t* used = nullptr) {
  const auto buffer = std::make_unique<char[]>(bytes.size());
  bytes.copy(buffer.get(), bytes.size());
  command.SetPayloadEnd(buffer.get() + bytes.size());
  char* cursor = buffer.get();
  (command.*hook)(&cursor);
  if (used != nullptr) {
    *used = static_cast<std::size_t>(cursor - buffer.get());
  }
  return {buffer.get(), bytes.size()};
}

std::string Text(const TCPE_Command& command, const Hooks& hooks) {
  std::ostringstream out;
  (command.*hooks.print)(out);
  return out.str();
}

/// Reads a payload of a revision, then every prefix of it: those are faults, and nothing beyond them is touched.
void ExpectRead(TCPE_Command& command, const Trel_CommandClass& commandClass, const Hooks& hooks, std::uint8_t revision,
                const std::string& bytes, const char* text) {
  std::size_t used = 0;
  command.SetReceivedRevision(revision);
  // What follows the last field is tolerated.
  Apply(command, hooks.read, bytes + "rest", &used);
  EXPECT_EQ(used, bytes.size());
  EXPECT_FALSE(command.GetPayloadFault());
  EXPECT_EQ(Text(command, hooks), text);
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    const auto reader = commandClass.create();
    reader->SetReceivedRevision(revision);
    Apply(*reader, hooks.read, bytes.substr(0, length), &used);
    EXPECT_TRUE(reader->GetPayloadFault()) << length;
    EXPECT_LE(used, length);
  }
}

void ExpectWritten(TCPE_Command& command, const Hooks& hooks, const std::string& bytes) {
  std::size_t used = 0;
  EXPECT_EQ(Apply(command, hooks.write, std::string(bytes.size() + 1, '\xAA'), &used), bytes + '\xAA');
  EXPECT_EQ(used, bytes.size());
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    Apply(command, hooks.write, std::string(length, '\xAA'), &used);
    EXPECT_TRUE(command.GetPayloadFault()) << length;
    EXPECT_LE(used, length);
  }
}

class Trel_CatalogueTest : public NumberingTest {};

INSTANTIATE_NUMBERING_TESTS(Trel_CatalogueTest);

TEST_P(Trel_CatalogueTest, EveryClassLooksAsItsRowSays) {
  std::map<std::string, const Row*> rows;
  for (const Row& row : kRows) {
    rows[row.name] = &row;
  }
  ASSERT_EQ(rows.size(), 76U);
  ASSERT_EQ(rows.size(), Trel_Catalogue::Classes().size());
  for (const Trel_CommandClass& commandClass : Trel_Catalogue::Classes()) {
    const std::string name = commandClass.description->identifiers.name;
    SCOPED_TRACE(name);
    ASSERT_TRUE(rows.contains(name));
    const Row& row = *rows[name];
    const std::int32_t identifier = IsCurrent() ? row.current : row.legacy;
    EXPECT_EQ(Trel_Catalogue::Find(identifier), identifier == 666 ? nullptr : &commandClass);

    const auto command = commandClass.create();
    EXPECT_EQ(command->GetCommandName(), name);
    EXPECT_EQ(command->GetCommandType(), row.Has('n') ? 0 : row.Has('c') ? row.current : identifier);
    EXPECT_EQ(command->IsSynchronous(), row.Has('s'));
    EXPECT_EQ(command->DontLogCommand(), row.Has('q'));
    EXPECT_EQ(command->GetRevision(), row.Has('2') ? 2 : row.Has('1') ? 1 : 0);

    const struct {
      const Hooks& hooks;
      const char* bytes;
      const char* text;
    } payloads[] = {{kCommandHooks, row.command, row.commandText}, {kReplyHooks, row.reply, row.replyText}};
    for (const auto& payload : payloads) {
      const bool differs = !IsCurrent() && row.legacyBytes != nullptr && *payload.bytes != '\0';
      const std::string bytes = FromHex(differs ? row.legacyBytes : payload.bytes);
      ExpectRead(*command, commandClass, payload.hooks, kNewestRevision, bytes,
                 differs ? row.legacyText : payload.text);
      ExpectWritten(*command, payload.hooks, bytes);
    }
    for (const auto& older : kOlderPayloads) {
      if (name == older.name) {
        const bool isReply = *row.reply != '\0';
        const auto reader = commandClass.create();
        reader->SetReceivedRevision(kNewestRevision);
        Apply(*reader, payloads[isReply].hooks.read, FromHex(payloads[isReply].bytes));
        ExpectRead(*reader, commandClass, payloads[isReply].hooks, older.revision, FromHex(older.bytes), older.text);
      }
    }
  }
}

TEST(Trel_Cmd_DialogOnScreen, CodeFollowsTheTypeAndLongMessagesAreCut) {
  for (const std::size_t length : {0U, 255U, 256U, 1000U}) {
    Trel_Cmd_DialogOnScreen command(eTrel_DialogType_QexError);
    command.SetDialogMsg(std::string(length, 'm').c_str());
    const std::string bytes = Apply(command, kCommandHooks.write, std::string(264, '\xAA'));
    const std::size_t kept = std::min<std::size_t>(length, 255);
    EXPECT_EQ(bytes,
              FromHex("00000003") + std::string(kept, 'm') + std::string(256 - kept, '\0') + FromHex("00000002"));
    EXPECT_EQ(command.GetDialogCode(), 3);
  }
  Trel_Cmd_DialogOnScreen arrived;
  Apply(arrived, kCommandHooks.read, FromHex("00000001 6d*256 00000009"));
  EXPECT_EQ(arrived.GetDialogMsg(), std::string(255, 'm'));
  EXPECT_EQ(arrived.GetDialogType(), 9);
  // A code that no type can have wraps.
  arrived.SetDialogType(static_cast<ETrel_DialogType>(0x7fffffff));
  EXPECT_EQ(Apply(arrived, kCommandHooks.write, std::string(264, '\xAA')).substr(0, 4), FromHex("80000000"));
}

TEST(Trel_Cmd_ListSystems, FitsInAFrameOrIsMalformed) {
  constexpr std::size_t kEntry = 72;
  constexpr std::size_t kFrame = 16384;
  std::vector<Trel_System> systems(227);
  systems[226].SetHostName(std::string(200, 'h').c_str());
  Trel_Cmd_ListSystems command;
  command.SetSystems(systems);
  const std::string bytes = Apply(command, kCommandHooks.write, std::string(kFrame, '\xAA'));
  EXPECT_FALSE(command.GetPayloadFault());
  EXPECT_EQ(bytes.substr(0, 4), FromHex("000000e3"));
  const auto arrivesAs = [&](const char* count, std::size_t size) {
    command = Trel_Cmd_ListSystems();
    Apply(command, kCommandHooks.read, (FromHex(count) + bytes.substr(4)).substr(0, size));
    return command.GetPayloadFault() ? -1 : static_cast<int>(command.GetSystems().size());
  };
  EXPECT_EQ(arrivesAs("000000e3", 4 + 227 * kEntry), 227);
  EXPECT_EQ(command.GetSystems()[226].GetHostName(), std::string(29, 'h'));
  EXPECT_EQ(arrivesAs("00000000", 4), 0);
  for (const char* count : {"000000e3", "ffffffff", "80000000", "7fffffff", "00ffffff"}) {
    EXPECT_EQ(arrivesAs(count, 4 + 227 * kEntry - 1), -1) << count;
    EXPECT_EQ(command.GetSystems().capacity(), 0U) << count; // nothing was reserved
  }

  systems.emplace_back();
  command.SetSystems(systems);
  std::size_t used = 1;
  Apply(command, kCommandHooks.write, std::string(kFrame, '\xAA'), &used);
  EXPECT_TRUE(command.GetPayloadFault());
  EXPECT_EQ(used, 0U);
}

TEST_P(Trel_CatalogueTest, NamesThatAreTooLongAreReplaced) {
  const struct {
    std::size_t length;
    bool isSystemNameKept;
    bool isHostNameKept;
  } cases[] = {{0, true, true}, {29, true, true}, {30, false, true}, {255, false, true}, {256, false, false}};
  for (const auto& test : cases) {
    const std::string name(test.length, 'x');
    Trel_Cmd_Connect command;
    command.SetSatelliteName(name.c_str());
    command.SetHostname(name.c_str());
    const std::string systemName = test.isSystemNameKept ? name : "Unknown System Name";
    const std::string hostName = test.isHostNameKept ? name : "Unknown Host Name";
    EXPECT_EQ(command.GetSatelliteName(), systemName);
    EXPECT_EQ(command.GetHostname(), hostName);

    // What arrives; the legacy numbering cuts the host name to its field.
    Trel_Cmd_Connect arrived;
    const std::string bytes = Apply(command, kCommandHooks.write, std::string(294, '\xAA'));
    Apply(arrived, kCommandHooks.read, bytes);
    EXPECT_EQ(arrived.GetSatelliteName(), systemName);
    EXPECT_EQ(arrived.GetHostname(), IsCurrent() ? hostName : hostName.substr(0, 29));
  }
  // A text that arrives without its end gets one.
  Trel_Cmd_Connect arrived;
  Apply(arrived, kCommandHooks.read, std::string(294, 'y'));
  EXPECT_EQ(arrived.GetSatelliteName(), std::string(29, 'y'));
  EXPECT_EQ(arrived.GetHostname(), std::string(IsCurrent() ? 255 : 29, 'y'));
}

} // namespace
