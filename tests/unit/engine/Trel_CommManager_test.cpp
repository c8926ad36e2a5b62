#include <trel/Trel_CommManager.h>

#include <trel/SPSStartupOption.h>

#include <gtest/gtest.h>

namespace {

class Trel_CommManagerTest : public testing::Test {
protected:
  ~Trel_CommManagerTest() override {
    SPSSetStartupOption("MaxNumberSatellites", nullptr);
    Trel_CommManager::SetMaxNumberSatellites(11);
    Trel_CommManager::SetMaxNumberSatellitesSupported(128);
    Trel_CommManager::Terminate();
  }
};

TEST_F(Trel_CommManagerTest, LimitsHaveAnUpperEndOnly) {
  EXPECT_EQ(Trel_CommManager::GetMaxNumberSatellites(), 11);
  EXPECT_EQ(Trel_CommManager::GetMaxNumberSatellitesSupported(), 128);
  const struct {
    std::int32_t set;
    const char* option;
    std::int32_t limit;
  } cases[] = {{129, "500", 128}, {128, "128", 128}, {0, "0", 0}, {-3, "-3", -3}, {11, nullptr, 11}};
  Trel_CommPreferences nowhere;
  nowhere.SetLocalInterfaceAddress(0xc0000201); // no adaptor has 192.0.2.1
  for (const auto& test : cases) {
    Trel_CommManager::SetMaxNumberSatellites(test.set);
    EXPECT_EQ(Trel_CommManager::GetMaxNumberSatellites(), test.limit);
    Trel_CommManager::SetMaxNumberSatellitesSupported(test.set);
    EXPECT_EQ(Trel_CommManager::GetMaxNumberSatellitesSupported(), test.limit);

    Trel_CommManager::SetMaxNumberSatellites(42);
    SPSSetStartupOption("MaxNumberSatellites", test.option);
    EXPECT_EQ(Trel_CommManager::Initialize(&nowhere, nullptr), eTCPE_Status_AddressNotLocal);
    EXPECT_EQ(Trel_CommManager::GetMaxNumberSatellites(), test.limit);
    EXPECT_EQ(Trel_CommManager::GetMaxNumberSatellitesSupported(), test.limit);
    EXPECT_FALSE(Trel_CommManager::IsInitialized());
  }
}

TEST_F(Trel_CommManagerTest, EachFlagAndAddressIsItsOwn) {
  const struct {
    bool (*get)();
    void (*set)(bool);
  } flags[] = {{Trel_CommManager::IsSatellite, Trel_CommManager::SetIsSatellite},
               {Trel_CommManager::AllowSatellitesToConnectToMasterSystem,
                Trel_CommManager::SetAllowSatellitesToConnectToMasterSystem},
               {Trel_CommManager::IsMasterClock, Trel_CommManager::SetIsMasterClock}};
  for (const auto& flag : flags) {
    flag.set(true);
    for (const auto& other : flags) {
      EXPECT_EQ(other.get(), &other == &flag);
    }
    flag.set(false);
  }
  Trel_CommManager::SetLocalSystemConnectionIDIP(1);
  Trel_CommManager::SetLocalSystemConnectionIDPort(2);
  Trel_CommManager::SetMasterSystemConnectionIDIPForDiscovery(3);
  Trel_CommManager::SetMasterSystemConnectionIDPortForDiscovery(4);
  Trel_CommManager::SetMasterSystemIPAddress(5);
  EXPECT_EQ(Trel_CommManager::GetLocalSystemConnectionIDIP(), 1U);
  EXPECT_EQ(Trel_CommManager::GetLocalSystemConnectionIDPort(), 2);
  EXPECT_EQ(Trel_CommManager::GetMasterSystemConnectionIDIPForDiscovery(), 3U);
  EXPECT_EQ(Trel_CommManager::GetMasterSystemConnectionIDPortForDiscovery(), 4);
  EXPECT_EQ(Trel_CommManager::GetMasterSystemIPAddress(), 5U);
  EXPECT_EQ(Trel_CommManager::GetCommunicationPort(), 28282);
  EXPECT_EQ(Trel_CommManager::GetDiscoveryPort(), 28283);
}

TEST_F(Trel_CommManagerTest, TerminateForgetsTheEngineAndKeepsTheLimits) {
  EXPECT_EQ(Trel_CommManager::GetLocalSystem(), Trel_CommManager::GetLocalSystem());
  Trel_CommManager::SetSystemName("Stage");
  EXPECT_STREQ(Trel_CommManager::GetLocalSystem()->GetSystemName(), "Stage");
  Trel_CommManager::SetIsSatellite(true);
  Trel_CommManager::SetMaxNumberSatellites(9);
  Trel_CommManager::Terminate();
  Trel_CommManager::Terminate();
  EXPECT_FALSE(Trel_CommManager::IsSatellite());
  EXPECT_STRNE(Trel_CommManager::GetLocalSystem()->GetSystemName(), "Stage");
  EXPECT_EQ(Trel_CommManager::GetMaxNumberSatellites(), 9);
}

TEST(Trel_CommPreferences, InstanceHasTheDefaults) {
  EXPECT_EQ(Trel_CommPreferences::Inst(), Trel_CommPreferences::Inst());
  EXPECT_EQ(Trel_CommPreferences::Inst()->GetLocalInterfaceAddress(), 0U);
  EXPECT_EQ(Trel_CommPreferences::Inst()->GetCommunicationPort(), 28282);
}

} // namespace
