#include <trel/Trel_CommTask.h>

#include <trel/TCPE_Cmd_Disconnect.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_CorrelatedClockMgr.h>

#include "tests/support/Hex.h"
#include "tests/support/NumberingTest.h"

namespace {

class Trel_CommTaskTest : public NumberingTest {
protected:
  TCPE_System mSystem;
  Trel_CommTask mTask{0, 0, &mSystem, 128, nullptr};
};

INSTANTIATE_NUMBERING_TESTS(Trel_CommTaskTest);

class BareCommand : public Trel_Command {
public:
  explicit BareCommand(std::int32_t identifier) : Trel_Command(identifier, 3) {}
};

TEST_P(Trel_CommTaskTest, PreparesWhatMayBeSent) {
  const auto expect = [this](TCPE_Command& command, TCPE_CommErr error, TCPE_eCmd type) {
    SCOPED_TRACE(command.GetCommandName());
    EXPECT_EQ(mTask.PrepareToSend(&command), error);
    EXPECT_EQ(command.GetCommandType(), type);
  };
  Trel_Cmd_Disconnect withoutType;
  expect(withoutType, eTCPE_CommErr_None, IsCurrent() ? 12 : 19);
  Trel_Cmd_ConnectComplete withType;
  expect(withType, eTCPE_CommErr_None, IsCurrent() ? 6 : 4);
  Trel_Cmd_GetIsMasterClock currentOnly;
  expect(currentOnly, IsCurrent() ? eTCPE_CommErr_None : eTCPE_CommErr_NotInThisNumbering, 80);
  BareCommand undescribed(0);
  expect(undescribed, eTCPE_CommErr_NoIdentifier, 0);
  BareCommand hostsOwn(77);
  expect(hostsOwn, eTCPE_CommErr_None, 77);
  // The engine's own commands are known by their class and pass as they are, whatever their number.
  TCPE_Cmd_Disconnect disconnect(&mSystem, 19);
  expect(disconnect, eTCPE_CommErr_None, 19);
}

TEST_P(Trel_CommTaskTest, HeaderCarriesTheVersionOfTheNumbering) {
  BareCommand command(0x01020304);
  char header[TCPE_Command::kHeaderSize];
  char* cursor = header;
  mTask.WriteCommandHeader(&command, &cursor);
  EXPECT_EQ(cursor, header + sizeof header);
  EXPECT_EQ(std::string(header, sizeof header),
            FromHex(IsCurrent() ? "0000 04 01 03 00*3 01020304 00*8" : "0000 03 01 03 00*3 01020304 00*8"));
}

TEST_P(Trel_CommTaskTest, IntroducesTheLocalSystem) {
  mSystem.SetSystemName("Cutting Room");
  mSystem.SetHostName("host-3");
  mSystem.SetUniqueID(17);
  Trel_Cmd_Connect command;
  command.SetUniqueIDTo(9);
  mTask.FillConnectCommand(&command, mSystem);
  EXPECT_STREQ(command.GetSatelliteName(), "Cutting Room");
  EXPECT_STREQ(command.GetHostname(), "host-3");
  EXPECT_EQ(command.GetUniqueIDFrom(), 17);
  EXPECT_EQ(command.GetUniqueIDTo(), 0);
  Trel_Cmd_ConnectComplete other;
  mTask.FillConnectCommand(&other, mSystem);
}

TEST_P(Trel_CommTaskTest, ForwardsToTheCommandModelAndTheClock) {
  EXPECT_EQ(mTask.GetCompatibleID(-4), IsCurrent() ? -4 : 18);
  EXPECT_EQ(mTask.GetTCPECommandType(18), IsCurrent() ? 18 : -4);
  TCPE_eCmd type = -1;
  mTask.ValidateCommand(&type);
  EXPECT_EQ(type, IsCurrent() ? 0 : -1);

  alignas(std::max_align_t) std::byte block[Trel_Command::kMaxCommandSize];
  TCPE_Command* command = mTask.ConstructCommand(IsCurrent() ? 33 : 26, block);
  ASSERT_STREQ(command->GetCommandName(), "ResetClock");
  Trel_CorrelatedClockMgr::AddMeasurement(500, 0);
  EXPECT_TRUE(mTask.HandleTimingCommand(command));
  EXPECT_EQ(Trel_CorrelatedClockMgr::GetRunningTime(0), 0);
  Trel_CorrelatedClockMgr::Terminate();
  TCPE_Cmd_Disconnect enginesOwn(nullptr, command->GetCommandType());
  EXPECT_FALSE(mTask.HandleTimingCommand(&enginesOwn));

  static int sCalls = 0;
  const std::int32_t identifier = command->GetCommandType();
  EXPECT_FALSE(mTask.HasHandler(command));
  Trel_Command::SetDoItCommand(identifier, [](TCPE_Command*) { ++sCalls; });
  EXPECT_TRUE(mTask.HasHandler(command));
  sCalls = 0;
  mTask.DoCommand(command);
  EXPECT_EQ(sCalls, 1);
  Trel_Command::SetDoItCommand(identifier, nullptr);
  command->~TCPE_Command();
}

} // namespace
