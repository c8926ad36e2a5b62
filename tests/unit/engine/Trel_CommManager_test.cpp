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

} // namespace
