#include <trel/Sys_Clock.h>
#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_Cmd_State.h>
#include <trel/Trel_Cmd_Transport.h>

#include "tests/support/NumberingTest.h"
#include "tests/support/ReportCollector.h"

#include <gmock/gmock.h>

#include <map>
#include <stdexcept>
#include <thread>
#include <type_traits>

namespace {

class Trel_CommandTest : public NumberingTest {
protected:
  void TearDown() override {
    for (std::int32_t identifier = -6; identifier <= 80; ++identifier) {
      Trel_Command::SetDoItCommand(identifier, nullptr);
      Trel_Command::SetAppDataPtr(identifier, nullptr);
    }
    NumberingTest::TearDown();
  }

  static Trel_Command::DoItProc HandlerOf(std::int32_t identifier) {
    return Trel_Cmd_StopPlayback().GetDoItCommand(static_cast<Trel_eCmd>(identifier));
  }
  static std::int32_t Slot(std::int32_t type) { return IsCurrent() ? type : type + 6; }
};

INSTANTIATE_NUMBERING_TESTS(Trel_CommandTest);

static_assert(
    std::is_same_v<decltype(&Trel_Command::GetDoItCommand), Trel_Command::DoItProc (Trel_Command::*)(Trel_eCmd) const>);
static_assert(std::is_constructible_v<Trel_Command, Trel_eCmd, std::uint8_t> &&
              !std::is_constructible_v<Trel_Command, std::int32_t, std::uint8_t>);

int sCalls = 0;
void Count(TCPE_Command* /*command*/) { ++sCalls; }
void Throw(TCPE_Command* /*command*/) {
  ++sCalls;
  throw std::runtime_error("handler");
}

TEST_P(Trel_CommandTest, TranslatesBetweenIdentifiersAndEngineTypes) {
  const std::map<std::int32_t, TCPE_eCmd> engineTypes{{1, -1}, {2, -2}, {3, -3}, {18, -4}, {19, -5}, {27, -6}};
  for (std::int32_t identifier = 0; identifier <= 667; ++identifier) {
    const bool isEngines = !IsCurrent() && engineTypes.contains(identifier);
    const TCPE_eCmd type = isEngines ? engineTypes.at(identifier) : identifier;
    EXPECT_EQ(Trel_Command::GetTCPECommandType(identifier), type);
    EXPECT_EQ(Trel_Command::GetCompatibleID(type), identifier);
  }
  for (const std::int32_t type : {-7, -100}) {
    EXPECT_EQ(Trel_Command::GetTCPECommandType(type), type);
    EXPECT_EQ(Trel_Command::GetCompatibleID(type), type);
  }
  EXPECT_EQ(Trel_Command::GetCompatibleID(-1), IsCurrent() ? -1 : 1);
}

TEST_P(Trel_CommandTest, KnowsRangeAndVersionOfTheNumbering) {
  for (const TCPE_eCmd type : {-100, -7, -6, -1, 0, 1, 76, 77, 80, 81, 666}) {
    TCPE_eCmd validated = type;
    Trel_Command::ValidateCommand(&validated);
    EXPECT_EQ(validated, (IsCurrent() ? 0 <= type && type <= 80 : -6 <= type && type <= 76) ? type : 0);
  }
  EXPECT_EQ(Trel_Command::GetCurrentProtocolMajorVersion(), IsCurrent() ? 4 : 3);
}

TEST_P(Trel_CommandTest, RegistrationTranslatesAndLookupDoesNot) {
  Trel_Command::SetDoItCommand(18, &Count);
  EXPECT_EQ(Trel_Command::mDoItProcPtrArray[IsCurrent() ? 18 : 2], &Count);
  EXPECT_EQ(HandlerOf(18), IsCurrent() ? &Count : nullptr);
  EXPECT_EQ(HandlerOf(-4), IsCurrent() ? nullptr : &Count);

  const std::int32_t last = IsCurrent() ? 80 : 76;
  for (const std::int32_t outside : {last + 1, 666, -7, IsCurrent() ? -1 : -8}) {
    Trel_Command::SetDoItCommand(outside, &Throw);
    EXPECT_EQ(HandlerOf(outside), nullptr);
  }
  EXPECT_THAT(Trel_Command::mDoItProcPtrArray, testing::Not(testing::Contains(&Throw)));
  Trel_Command::SetDoItCommand(last, &Throw);
  EXPECT_EQ(Trel_Command::mDoItProcPtrArray[Slot(last)], &Throw);

  // Out of range reads the slot of identifier 0.
  Trel_Command::SetDoItCommand(0, &Count);
  EXPECT_EQ(HandlerOf(last + 1), &Count);
  EXPECT_EQ(HandlerOf(-7), &Count);
}

TEST_P(Trel_CommandTest, DispatchesToTheHandlerAndSwallowsWhatItThrows) {
  Trel_Cmd_Connect connect;
  sCalls = 0;
  Trel_Command::DoIt(&connect);
  Trel_Command::DoIt(nullptr);
  EXPECT_FALSE(Trel_Command::HasHandler(&connect) || Trel_Command::HasHandler(nullptr));
  EXPECT_EQ(sCalls, 0);

  Trel_Command::SetDoItCommand(Trel_Cmd_Connect::GetCommandID(), &Throw);
  Trel_Command::DoIt(&connect);
  connect.SetCommandType(IsCurrent() ? 5 : -4); // as it arrives
  EXPECT_TRUE(Trel_Command::HasHandler(&connect));
  Trel_Command::DoIt(&connect);
  EXPECT_EQ(sCalls, 2);
  EXPECT_EQ(connect.GetError(), eTCPE_CommErr_HandlerFailed); // which its sender is told

  // Out of range there is no handler, not even that of identifier 0.
  Trel_Command::SetDoItCommand(0, &Count);
  for (const TCPE_eCmd type : {666, -7, IsCurrent() ? 81 : 77}) {
    connect.SetCommandType(type);
    EXPECT_FALSE(Trel_Command::HasHandler(&connect));
    Trel_Command::DoIt(&connect);
  }
  EXPECT_EQ(sCalls, 2);
}

TEST_P(Trel_CommandTest, HandlersHoldTheNumbering) {
  ReportCollector reports;
  Trel_Command::SetDoItCommand(7, &Count);
  Trel_Command::SetDoItCommand(7, &Throw);
  Trel_Command::SetDoItCommand(8, &Count);
  Trel_Command::SetDoItCommand(7, nullptr);
  Trel_Command::SetDoItCommand(7, nullptr);
  TCPE_CommManager::SetSupportsMarlo11(!IsCurrent());
  EXPECT_EQ(TCPE_CommManager::GetSupportsMarlo11(), IsCurrent());
  EXPECT_THAT(reports.Take(), testing::SizeIs(1));
  Trel_Command::SetDoItCommand(8, nullptr);

  const Trel_Cmd_GetState before;
  TCPE_CommManager::SetSupportsMarlo11(!IsCurrent());
  EXPECT_EQ(TCPE_CommManager::GetSupportsMarlo11(), !IsCurrent());
  EXPECT_THAT(reports.Take(), testing::IsEmpty());
  EXPECT_EQ(before.GetCommandType(), IsCurrent() ? 70 : 67) << "it keeps what it was built with";
}

TEST_P(Trel_CommandTest, TheNumberingStaysWhileThereIsAHandlerWhoeverChangesIt) {
  const ReportCollector reports;
  const std::jthread changing([](const std::stop_token& ends) {
    for (bool legacy = false; !ends.stop_requested(); legacy = !legacy) {
      TCPE_CommManager::SetSupportsMarlo11(legacy);
    }
  });
  int changes = 0;
  int seen = 0; // from one round to the next
  bool held = false;
  for (const std::int64_t end = Sys_Clock::RawMicroseconds() + 10'000'000;
       seen < 1'000 && Sys_Clock::RawMicroseconds() < end;) {
    Trel_Command::SetDoItCommand(7, &Count);
    seen += TCPE_CommManager::GetSupportsMarlo11() != held ? 1 : 0;
    held = TCPE_CommManager::GetSupportsMarlo11();
    for (int look = 0; look < 20; ++look) {
      changes += TCPE_CommManager::GetSupportsMarlo11() != held ? 1 : 0;
    }
    Trel_Command::SetDoItCommand(7, nullptr);
  }
  EXPECT_EQ(changes, 0);
}

} // namespace
