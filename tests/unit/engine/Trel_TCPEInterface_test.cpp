#include <trel/Trel_TCPEInterface.h>

#include <trel/SPSStartupOption.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_CorrelatedClockMgr.h>

#include "tests/support/NumberingTest.h"
#include "tests/support/ReportCollector.h"

#include <gmock/gmock.h>

#include <string>
#include <tuple>
#include <utility>

namespace {

class Trel_TCPEInterfaceTest : public NumberingTest {
protected:
  void TearDown() override {
    Trel_CommManager::SetMaxNumberSatellites(11);
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
  for (const auto& [stored, discovery, communication] :
       {std::tuple{0, 28283, 28282}, {65535, 65535, 28282}, {1, 1, 1}, {65534, 65534, 65534}}) {
    mInterface.*Ports::kDiscovery = mInterface.*Ports::kCommunication = static_cast<std::uint16_t>(stored);
    EXPECT_EQ(mInterface.GetDiscoveryPort(), discovery);
    EXPECT_EQ(mInterface.GetCommunicationPort(), communication);
  }
}

TEST_P(Trel_TCPEInterfaceTest, TheLimitsHaveAnUpperEndOnly) {
  Trel_CommPreferences nowhere;
  nowhere.SetLocalInterfaceAddress(0xc0000201); // no adaptor has 192.0.2.1
  for (const auto& [option, limit] : {std::pair{"500", 128}, {"128", 128}, {"-3", -3}, {"11", 11}}) {
    SPSSetStartupOption("MaxNumberSatellites", option);
    EXPECT_EQ(Trel_CommManager::Initialize(&nowhere, nullptr), eTCPE_Status_AddressNotLocal);
    EXPECT_EQ(Trel_CommManager::GetMaxNumberSatellites(), limit);
    Trel_CommManager::SetMaxNumberSatellitesSupported(std::stoi(option));
    EXPECT_EQ(Trel_CommManager::GetMaxNumberSatellitesSupported(), limit);
  }
  Trel_CommManager::SetMaxNumberSatellitesSupported(128);
  SPSSetStartupOption("MaxNumberSatellites", nullptr);
  Trel_CommManager::Terminate();
}

template <class Command>
struct OtherWay : Command {
  bool IsSynchronous() const override { return !Command::IsSynchronous(); }
};

TEST_P(Trel_TCPEInterfaceTest, AnswersTheLimitsAndTakesTheRequestedOne) {
  ReportCollector reports;
  OtherWay<Trel_Cmd_RequestMaxSatellites> request;
  OtherWay<Trel_Cmd_GetMaxSatellites> limit;
  Trel_Cmd_GetIsMasterClock other;
  for (const auto& [requested, taken] : {std::pair{1000, 128}, {0, 0}, {-3, -3}, {7, 7}}) {
    request.SetMaxSatellitesRequested(requested);
    EXPECT_TRUE(mInterface.HandleAsyncCommand(&request));
    EXPECT_TRUE(mInterface.HandleSyncCommand(&limit));
    EXPECT_EQ(limit.GetMaxSatellites(), taken);
    // The wrong kind is reported and handled all the same.
    EXPECT_THAT(reports.Take(), testing::ElementsAre(R"(! inCommand->IsSynchronous()@$^$@..\Trel_CommManager)",
                                                     R"(inCommand->IsSynchronous()@$^$@..\Trel_CommManager)"));
  }
  EXPECT_FALSE(mInterface.HandleSyncCommand(&other) || mInterface.HandleSyncCommand(nullptr));
  EXPECT_FALSE(mInterface.HandleAsyncCommand(&other) || mInterface.HandleAsyncCommand(nullptr));
  Trel_Cmd_ResetClock reset;
  Trel_Cmd_GetMaxSatellitesSupported supported;
  EXPECT_TRUE(mInterface.HandleSyncCommand(&reset) && mInterface.HandleSyncCommand(&supported));
  EXPECT_EQ(supported.GetMaxSatellitesSupported(), 128);
  EXPECT_THAT(reports.Take(), testing::IsEmpty());

  // The number of the other numbering is another command here.
  limit.SetMaxSatellites(0);
  limit.SetCommandType(IsCurrent() ? 70 : 73);
  EXPECT_FALSE(mInterface.HandleSyncCommand(&limit));
  EXPECT_EQ(limit.GetMaxSatellites(), 0);
}

} // namespace
