#include <trel/Sys_Clock.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_CorrelatedClockMgr.h>

#include "tests/support/NumberingTest.h"
#include "tests/support/ReportCollector.h"

#include <atomic>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::atomic<std::int64_t> sNow{0};

class Trel_CorrelatedClockMgrTest : public NumberingTest {
protected:
  void SetUp() override {
    NumberingTest::SetUp();
    Sys_Clock::SetSource([] { return sNow.load(); });
    Trel_CorrelatedClockMgr::Terminate();
    Trel_CorrelatedClockMgr::Initialize();
  }

  void TearDown() override {
    Trel_CorrelatedClockMgr::Terminate();
    Sys_Clock::SetSource(nullptr);
    NumberingTest::TearDown();
  }

  static void ReceiveRunningTime(std::int64_t hostTime, std::int64_t runningTime) {
    sNow = hostTime;
    Trel_Cmd_UpdateRunningTime command(runningTime);
    EXPECT_TRUE(Trel_CorrelatedClockMgr::HandleTimingCommand(&command));
  }

  static void ReceiveVoucher(std::int64_t roundTripTime) {
    Trel_Cmd_LastUpdateRunningTimeValid command;
    command.SetRoundTripTime(roundTripTime);
    EXPECT_TRUE(Trel_CorrelatedClockMgr::HandleTimingCommand(&command));
  }
};

INSTANTIATE_NUMBERING_TESTS(Trel_CorrelatedClockMgrTest);

TEST_P(Trel_CorrelatedClockMgrTest, VouchedExchangesBecomeMeasurements) {
  EXPECT_EQ(Trel_CorrelatedClockMgr::GetRunningTime(77), 77);
  ReceiveRunningTime(5'000'000, 1'000'000);
  EXPECT_EQ(Trel_CorrelatedClockMgr::GetRunningTime(5'000'000), 5'000'000);
  sNow = 5'040'000; // the voucher's own time of arrival does not matter
  ReceiveVoucher(1'001);
  EXPECT_EQ(Trel_CorrelatedClockMgr::GetRunningTime(5'000'000), 1'000'500);
  EXPECT_EQ(Trel_CorrelatedClockMgr::GetHostTime(1'000'500), 5'000'000);

  // The pair stays and can be vouched for again: two measurements at one host time have no line.
  ReceiveVoucher(500);
  EXPECT_EQ(Trel_CorrelatedClockMgr::GetRunningTime(5'000'000), std::numeric_limits<std::int64_t>::min());

  Trel_CorrelatedClockMgr::ResetClock();
  ReceiveVoucher(-3); // halved toward minus infinity
  EXPECT_EQ(Trel_CorrelatedClockMgr::GetRunningTime(5'000'000), 999'998);
}

TEST_P(Trel_CorrelatedClockMgrTest, TakesTheMiddleBetweenArrivalAndNow) {
  constexpr std::int64_t kNow = 5'000'000;
  const struct {
    std::int64_t arrival;
    std::int64_t hostTime;
  } cases[] = {{kNow - 25, kNow - 13},
               {kNow, kNow},
               {kNow - 2'000, kNow - 1'000},
               {kNow - 2'001, kNow},
               {kNow + 1, kNow},
               {0, kNow},
               {std::numeric_limits<std::int64_t>::min(), kNow}};
  for (const auto& test : cases) {
    sNow = kNow;
    Trel_CorrelatedClockMgr::ResetClock();
    Trel_Cmd_UpdateRunningTime command(1'000'000);
    command.SetArrivalTime(test.arrival);
    Trel_CorrelatedClockMgr::HandleTimingCommand(&command);
    ReceiveVoucher(0);
    EXPECT_EQ(Trel_CorrelatedClockMgr::GetHostTime(1'000'000), test.hostTime) << test.arrival;
  }
}

TEST_P(Trel_CorrelatedClockMgrTest, LimitOfTheRoundTripGrowsWithThePeriod) {
  const struct {
    std::int64_t period;
    std::int64_t limit;
  } cases[] = {{-1'000, 2'000},    {500'000, 2'000},   {500'001, 2'001},     {600'000, 3'258},
               {1'000'000, 5'414}, {2'000'000, 8'748}, {10'000'000, 23'192}, {20'000'000, 35'099}};
  constexpr std::int64_t kProbe = 1'000'000'000;
  for (const auto& test : cases) {
    for (const std::int64_t excess : {0, 1}) {
      Trel_CorrelatedClockMgr::ResetClock();
      Trel_CorrelatedClockMgr::AddMeasurement(0, 0);
      ReceiveRunningTime(test.period, 0);
      ReceiveVoucher(test.limit + excess);
      // Accepted, the second measurement gives the line another slope than the first one alone.
      const bool accepted = Trel_CorrelatedClockMgr::GetRunningTime(kProbe) != kProbe;
      EXPECT_EQ(accepted, excess == 0) << "period " << test.period << ", limit " << test.limit;
    }
  }
}

TEST_P(Trel_CorrelatedClockMgrTest, EmptyWindowTakesTheLimitOfTenSeconds) {
  for (const bool initialized : {true, false}) {
    Trel_CorrelatedClockMgr::Terminate();
    if (initialized) {
      Trel_CorrelatedClockMgr::Initialize();
    }
    ReceiveRunningTime(50'000'000, 100);
    ReceiveVoucher(23'193);
    EXPECT_EQ(Trel_CorrelatedClockMgr::GetMaxNetworkLatencyForNonMaster(), 23'193);
    ReceiveVoucher(23'192);
    // Creating the window for the accepted one clears the maximum.
    EXPECT_EQ(Trel_CorrelatedClockMgr::GetMaxNetworkLatencyForNonMaster(), initialized ? 23'193 : 0);
    EXPECT_EQ(Trel_CorrelatedClockMgr::GetRunningTime(50'000'000), 100 + 11'596);
  }
}

TEST_P(Trel_CorrelatedClockMgrTest, LocksAndIsResetByCommand) {
  for (std::int64_t i = 0; i < 4; ++i) {
    EXPECT_FALSE(Trel_CorrelatedClockMgr::IsLocked());
    ReceiveRunningTime(1'000'000 + 100'000 * i, 100'000 * i);
    ReceiveVoucher(200);
  }
  EXPECT_TRUE(Trel_CorrelatedClockMgr::IsLocked());
  EXPECT_EQ(Trel_CorrelatedClockMgr::GetRunningTime(2'000'000), 1'000'100);
  Trel_CorrelatedClockMgr::Initialize();
  EXPECT_TRUE(Trel_CorrelatedClockMgr::IsLocked());

  ReceiveVoucher(3'000); // beyond the limit, counted all the same
  Trel_Cmd_ResetClock reset;
  EXPECT_TRUE(Trel_CorrelatedClockMgr::HandleTimingCommand(&reset));
  EXPECT_FALSE(Trel_CorrelatedClockMgr::IsLocked());
  EXPECT_EQ(Trel_CorrelatedClockMgr::GetRunningTime(2'000'000), 2'000'000);
  EXPECT_EQ(Trel_CorrelatedClockMgr::GetMaxNetworkLatencyForNonMaster(), 3'000);
  ReceiveVoucher(0); // nor is the pair forgotten
  EXPECT_EQ(Trel_CorrelatedClockMgr::GetRunningTime(1'300'000), 300'000);
}

class AsynchronousResetClock : public Trel_Cmd_ResetClock {
public:
  bool IsSynchronous() const override { return false; }
};

TEST_P(Trel_CorrelatedClockMgrTest, TakesTheTimingCommandsOfTheNumberingInForceOnly) {
  ReportCollector reports;
  Trel_CorrelatedClockMgr::AddMeasurement(500, 0);
  EXPECT_FALSE(Trel_CorrelatedClockMgr::HandleTimingCommand(nullptr));
  const std::vector<std::int32_t> expected =
      IsCurrent() ? std::vector<std::int32_t>{30, 31, 33} : std::vector<std::int32_t>{23, 24, 26};
  std::vector<std::int32_t> taken;
  Trel_Cmd_GetCurrentRunningTime command;
  for (std::int32_t type = -6; type <= 80; ++type) {
    command.SetCommandType(type);
    if (Trel_CorrelatedClockMgr::HandleTimingCommand(&command)) {
      taken.push_back(type);
    } else {
      EXPECT_EQ(Trel_CorrelatedClockMgr::GetRunningTime(0), type > expected[2] ? 0 : 500);
    }
  }
  EXPECT_EQ(taken, expected);
  EXPECT_TRUE(reports.Take().empty());

  Trel_CorrelatedClockMgr::AddMeasurement(500, 0);
  AsynchronousResetClock asynchronous;
  EXPECT_TRUE(Trel_CorrelatedClockMgr::HandleTimingCommand(&asynchronous));
  EXPECT_EQ(Trel_CorrelatedClockMgr::GetRunningTime(0), 0);
  EXPECT_EQ(reports.Take(), std::vector<std::string>{R"(inCommand->IsSynchronous()@$^$@..\Trel_CorrelatedClockMgr)"});
}

TEST_P(Trel_CorrelatedClockMgrTest, SurvivesHostileNumbers) {
  constexpr std::int64_t kExtremes[] = {std::numeric_limits<std::int64_t>::min(), -1, 0,
                                        std::numeric_limits<std::int64_t>::max()};
  for (const std::int64_t runningTime : kExtremes) {
    for (const std::int64_t roundTripTime : kExtremes) {
      ReceiveRunningTime(sNow + 100'000, runningTime);
      ReceiveVoucher(roundTripTime);
      Trel_CorrelatedClockMgr::GetRunningTime(runningTime);
      Trel_CorrelatedClockMgr::GetHostTime(runningTime);
    }
  }
  Trel_CorrelatedClockMgr::ResetClock();
  ReceiveRunningTime(50, 100);
  ReceiveVoucher(0);
  EXPECT_EQ(Trel_CorrelatedClockMgr::GetRunningTime(50), 100);
}

TEST_P(Trel_CorrelatedClockMgrTest, ReadersRunBesideWriters) {
  std::atomic<bool> done{false};
  std::vector<std::thread> readers(3);
  for (std::thread& reader : readers) {
    reader = std::thread([&done] {
      while (!done) {
        const std::int64_t runningTime = Trel_CorrelatedClockMgr::GetRunningTime(1'000'000);
        EXPECT_TRUE(runningTime >= 1'000'000 && runningTime < 1'000'000 + 5'000) << runningTime;
        Trel_CorrelatedClockMgr::IsLocked();
      }
    });
  }
  for (std::int64_t offset = 0; offset < 5'000; ++offset) {
    if (offset % 100 == 0) {
      Trel_CorrelatedClockMgr::Terminate();
    }
    ReceiveRunningTime(20 * offset, 21 * offset);
    ReceiveVoucher(0);
    Trel_CorrelatedClockMgr::ResetClock();
  }
  done = true;
  for (std::thread& reader : readers) {
    reader.join();
  }
}

} // namespace
