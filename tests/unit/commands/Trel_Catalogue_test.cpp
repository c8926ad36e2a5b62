#include "link/commands/Trel_Catalogue.h"

#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_Cmd_State.h>

#include "tests/support/Hex.h"
#include "tests/support/NumberingTest.h"

#include <cstddef>
#include <map>
#include <memory>
#include <sstream>
#include <string>

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
  const char* legacyCommand = nullptr; // where it differs
  const char* legacyCommandText = nullptr;

  bool Has(char trait) const { return std::string(traits).find(trait) != std::string::npos; }
};

const Row kRows[] = {
    {5, 18, "Connect", "", "81020304 00000005 416c 00*28 686f7374 00*252",
     "UniqueIDFrom=-2130574588 UniqueIDTo=5 SatelliteName=\"Al\" Hostname=\"host\"", "", "",
     "416c 00*28 686f7374 00*26", "SatelliteName=\"Al\" Hostname=\"host\""},
    {6, 4, "ConnectComplete", "s", "", ""},
    {12, 19, "Disconnect", "n", "", ""},
    {14, 5, "Prime", "", "00*7 01 00*7 02 00*7 03 00*7 04 ff*8 fffffff0",
     "PreRollStart=1 InPoint=2 OutPoint=3 PostRollEnd=4 ActualStartTime=-1 PlaySpeed=-16"},
    {15, 6, "SyncClock", "", "", ""},
    {16, 7, "StartPlayback", "", "0102030405060708", "StartAtRunningTime=72623859790382856"},
    {17, 8, "StopPlayback", "", "", ""},
    {28, 21, "GetStartDelay", "s", "", "", "fe000001", "StartDelay=4261412865"},
    {30, 23, "UpdateRunningTime", "sq", "8000000000000001", "RunningTime=-9223372036854775807"},
    {31, 24, "LastUpdateRunningTimeValid", "sq", "00*6 03e9", "RoundTripTime=1001"},
    {32, 25, "FrameEdgeInRunningTime", "s", "00*6 8235", "FrameEdgeTime=33333"},
    {33, 26, "ResetClock", "s", "", ""},
    {34, 28, "ReportPlayStartData", "", "00*7 01 00*7 02 00*7 03",
     "AudioPlayStartTimestamp=1 VideoPlayStartTimestamp=2 FrameEdgeTimestamp=3"},
    {35, 29, "SendState", "s", "00000006", "eTrel_State_Play"},
    {36, 30, "ClockLockState", "", "01", "ClockLocked=1"},
    {37, 31, "GetCurrentRunningTime", "sq", "", "", "00*4 80000000", "RunningTime=2147483648"},
    {40, 34, "GetFrameEdgeInRunningTime", "s", "", "", "00*6 0100", "FrameEdge=256"},
    {50, 44, "TestRunningTime", "", "00*6 0102", "Time=258"},
    {51, 45, "GetPlayRange", "s", "", "", "00*7 01 00*7 02 00*7 03 00*7 04 00*7 05 00010000 01",
     "PreRollStart=1 InPoint=2 OutPoint=3 PostRollEnd=4 ActualStartTime=5 PlaySpeed=65536 LoopPlay=1"},
    {52, 46, "RequestSupplyMasterClock", "s", "01", "SupplyMasterClock=1", "01", "Success=1"},
    {53, 47, "UpdateMasterClockSource", "", "0a000001", "UniqueID=167772161", "", "", "0100000a",
     "MasterClock=10.0.0.1"},
    {55, 52, "GetPositionRunningTimeCorrelation", "s", "", "", "00*7 01 00*7 02", "Position=1 RunningTime=2"},
    {59, 56, "LockPlaybackToSystem", "", "0a000001", "UniqueID=167772161", "", "", "0100000a",
     "SystemToLockTo=10.0.0.1"},
    {70, 67, "GetState", "s", "", "", "00000007", "State=7"},
    {72, 69, "RequestMaxSatellites", "", "000003e8", "MaxSatellitesRequested=1000"},
    {73, 70, "GetMaxSatellites", "s", "", "", "0000000b", "MaxSatellites=11"},
    {74, 71, "GetMaxSatellitesSupported", "s", "", "", "00000080", "MaxSatellitesSupported=128"},
    {79, 79, "RequestSupplyMasterClockComplete", "sc", "01", "Success=1"},
    {80, 80, "GetIsMasterClock", "sc", "", "", "01", "IsMasterClock=1"},
};

/// A command in a block of its own, as the engine builds one.
class Built {
public:
  explicit Built(const Trel_CommandClass& commandClass) : mCommand(commandClass.construct(mBlock)) {}
  ~Built() { mCommand->~TCPE_Command(); }
  Built(const Built&) = delete;
  Built& operator=(const Built&) = delete;
  TCPE_Command* operator->() { return mCommand; }
  TCPE_Command& operator*() { return *mCommand; }

private:
  alignas(std::max_align_t) std::byte mBlock[Trel_Command::kMaxCommandSize];
  TCPE_Command* mCommand;
};

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

void ExpectPayload(const Trel_CommandClass& commandClass, const Hooks& hooks, const std::string& bytes,
                   const char* text) {
  Built command(commandClass);
  std::size_t used = 0;
  // What follows the last field is tolerated.
  Apply(*command, hooks.read, bytes + "rest", &used);
  EXPECT_EQ(used, bytes.size());
  EXPECT_FALSE(command->GetPayloadFault());
  EXPECT_EQ(Text(*command, hooks), text);
  EXPECT_EQ(Apply(*command, hooks.write, std::string(bytes.size() + 1, '\xAA'), &used), bytes + '\xAA');
  EXPECT_EQ(used, bytes.size());

  for (std::size_t length = 0; length < bytes.size(); ++length) {
    Built reader(commandClass);
    Apply(*reader, hooks.read, bytes.substr(0, length), &used);
    EXPECT_TRUE(reader->GetPayloadFault()) << length;
    EXPECT_LE(used, length);
    Apply(*command, hooks.write, bytes.substr(0, length));
    EXPECT_TRUE(command->GetPayloadFault()) << length;
  }
}

class Trel_CatalogueTest : public NumberingTest {};

INSTANTIATE_NUMBERING_TESTS(Trel_CatalogueTest);

TEST_P(Trel_CatalogueTest, EveryClassLooksAsItsRowSays) {
  std::map<std::string, const Row*> rows;
  for (const Row& row : kRows) {
    rows[row.name] = &row;
  }
  ASSERT_EQ(rows.size(), Trel_Catalogue::Classes().size());
  for (const Trel_CommandClass& commandClass : Trel_Catalogue::Classes()) {
    const std::string name = commandClass.description->identifiers.name;
    SCOPED_TRACE(name);
    ASSERT_TRUE(rows.contains(name));
    const Row& row = *rows[name];
    const std::int32_t identifier = IsCurrent() ? row.current : row.legacy;
    EXPECT_EQ(Trel_Catalogue::Find(identifier), &commandClass);

    Built command(commandClass);
    EXPECT_EQ(command->GetCommandName(), name);
    EXPECT_EQ(command->GetCommandType(), row.Has('n') ? 0 : row.Has('c') ? row.current : identifier);
    EXPECT_EQ(command->IsSynchronous(), row.Has('s'));
    EXPECT_EQ(command->DontLogCommand(), row.Has('q'));
    EXPECT_EQ(command->GetRevision(), row.Has('2') ? 2 : row.Has('1') ? 1 : 0);

    const bool differs = !IsCurrent() && row.legacyCommand != nullptr;
    ExpectPayload(commandClass, kCommandHooks, FromHex(differs ? row.legacyCommand : row.command),
                  differs ? row.legacyCommandText : row.commandText);
    ExpectPayload(commandClass, kReplyHooks, FromHex(row.reply), row.replyText);
  }
}

TEST(Trel_Cmd_SendState, NamesStatesUpToPlay) {
  std::map<std::int32_t, std::string> names;
  for (std::int32_t state = -1; state <= 8; ++state) {
    names[state] = Text(Trel_Cmd_SendState(static_cast<ETrel_State>(state)), kCommandHooks);
    EXPECT_EQ(names[state].empty(), state < 0 || state > 6) << state;
  }
  EXPECT_EQ(names[0], "eTrel_State_Stopping");
  EXPECT_EQ(names[6], "eTrel_State_Play");
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
    command.SetSatelliteName("before");
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
