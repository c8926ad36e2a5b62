#include <trel/Trel_TCPEInterface.h>

#include <trel/SPSStartupOption.h>
#include <trel/TCPE_CommTask.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_CorrelatedClockMgr.h>

#include "tests/support/NumberingTest.h"
#include "tests/support/ReportCollector.h"

#include <gmock/gmock.h>

#include <memory>

namespace {

class Trel_TCPEInterfaceTest : public NumberingTest {
protected:
  void TearDown() override {
    Trel_CommManager::SetMaxNumberSatellites(11);
    Trel_CommManager::SetMaxNumberSatellitesSupported(128);
    Trel_CorrelatedClockMgr::Terminate();
    NumberingTest::TearDown();
  }

  Trel_TCPEInterface mInterface;
};

INSTANTIATE_NUMBERING_TESTS(Trel_TCPEInterfaceTest);

/// The stored ports, which the engine sets.
struct Ports : TCPE_CommManager {
  static constexpr auto kDiscovery = &Ports::mDiscoveryPort;
  static constexpr auto kCommunication = &Ports::mCommunicationPort;
};

TEST_P(Trel_TCPEInterfaceTest, UnsetPortsBecomeTheDefaults) {
  const struct {
    std::uint16_t stored;
    std::int32_t discovery;
    std::int32_t communication;
  } cases[] = {{0, 28283, 28282}, {65535, 65535, 28282}, {1, 1, 1}, {65534, 65534, 65534}};
  for (const auto& test : cases) {
    mInterface.*Ports::kDiscovery = test.stored;
    mInterface.*Ports::kCommunication = test.stored;
    EXPECT_EQ(mInterface.GetDiscoveryPort(), test.discovery);
    EXPECT_EQ(mInterface.GetCommunicationPort(), test.communication);
    EXPECT_EQ(mInterface.*Ports::kDiscovery, test.discovery);
    EXPECT_EQ(mInterface.*Ports::kCommunication, test.communication);
  }
}

template <class Command>
struct OtherWay : Command {
  bool IsSynchronous() const override { return !Command::IsSynchronous(); }
};

TEST_P(Trel_TCPEInterfaceTest, AnswersTheLimitsAndTheTimingCommands) {
  ReportCollector reports;
  Trel_CommManager::SetMaxNumberSatellites(7);
  Trel_CommManager::SetMaxNumberSatellitesSupported(99);
  OtherWay<Trel_Cmd_GetMaxSatellites> limit;
  Trel_Cmd_GetMaxSatellitesSupported supported;
  OtherWay<Trel_Cmd_ResetClock> reset;
  Trel_Cmd_GetIsMasterClock other;

  EXPECT_TRUE(mInterface.HandleSyncCommand(&supported));
  EXPECT_EQ(supported.GetMaxSatellitesSupported(), 99);
  EXPECT_FALSE(mInterface.HandleSyncCommand(&other));
  EXPECT_FALSE(mInterface.HandleSyncCommand(nullptr));
  EXPECT_THAT(reports.Take(), testing::IsEmpty());

  // The wrong kind is reported and handled all the same.
  const char* const report = R"(inCommand->IsSynchronous()@$^$@..\Trel_CommManager)";
  EXPECT_TRUE(mInterface.HandleSyncCommand(&limit));
  EXPECT_EQ(limit.GetMaxSatellites(), 7);
  EXPECT_THAT(reports.Take(), testing::ElementsAre(report));
  EXPECT_TRUE(mInterface.HandleSyncCommand(&reset));
  EXPECT_THAT(reports.Take(),
              testing::ElementsAre(R"(inCommand->IsSynchronous()@$^$@..\Trel_CorrelatedClockMgr)", report));

  // The number of the other numbering is another command here.
  limit.SetMaxSatellites(0);
  limit.SetCommandType(IsCurrent() ? 70 : 73);
  EXPECT_FALSE(mInterface.HandleSyncCommand(&limit));
  EXPECT_EQ(limit.GetMaxSatellites(), 0);
}

TEST_P(Trel_TCPEInterfaceTest, TakesTheRequestedLimit) {
  ReportCollector reports;
  for (const auto& [requested, limit] : {std::pair{1000, 128}, {0, 0}, {-3, -3}, {128, 128}}) {
    Trel_Cmd_RequestMaxSatellites request;
    request.SetMaxSatellitesRequested(requested);
    EXPECT_TRUE(mInterface.HandleAsyncCommand(&request));
    EXPECT_EQ(Trel_CommManager::GetMaxNumberSatellites(), limit);
  }
  Trel_Cmd_ConnectComplete other;
  EXPECT_FALSE(mInterface.HandleAsyncCommand(&other));
  EXPECT_FALSE(mInterface.HandleAsyncCommand(nullptr));
  EXPECT_THAT(reports.Take(), testing::IsEmpty());

  OtherWay<Trel_Cmd_RequestMaxSatellites> wrongKind;
  wrongKind.SetMaxSatellitesRequested(3);
  EXPECT_TRUE(mInterface.HandleAsyncCommand(&wrongKind));
  EXPECT_EQ(Trel_CommManager::GetMaxNumberSatellites(), 3);
  EXPECT_THAT(reports.Take(), testing::ElementsAre(R"(! inCommand->IsSynchronous()@$^$@..\Trel_CommManager)"));
}

} // namespace
