#include "tcpe/TCPE_AdaptorChoice.h"

#include <gtest/gtest.h>

namespace {

Sys_Adaptor Adaptor(const char* name, std::uint32_t address, bool isUp, bool canBroadcast) {
  const bool isLoopback = address >> 24U == 127;
  return {.name = name,
          .address = address,
          .netmask = 0xffffff00,
          .broadcast = canBroadcast ? address | 0xffU : 0,
          .isUp = isUp,
          .isLoopback = isLoopback,
          .canBroadcast = canBroadcast};
}

const Sys_Adaptor kLoopback = Adaptor("lo", 0x7f000001, true, true);
const Sys_Adaptor kTunnel = Adaptor("tun0", 0x0a000001, true, false);
const Sys_Adaptor kDown = Adaptor("eth0", 0x0a000101, false, true);
const Sys_Adaptor kFirst = Adaptor("eth1", 0x0a000201, true, true);
const Sys_Adaptor kSecond = Adaptor("eth2", 0x0a000301, true, true);

TEST(TCPE_AdaptorChoice, TakesThePreferredOneElseTheFirstThatIsUpAndCanBroadcastElseLoopback) {
  const std::vector<Sys_Adaptor> all{kLoopback, kTunnel, kDown, kFirst, kSecond};
  const struct {
    std::uint32_t preferred;
    std::vector<Sys_Adaptor> adaptors;
    ETCPE_Status status;
    std::uint32_t address;
    const char* report;
  } cases[] = {
      {0, all, eTCPE_Status_Success, kFirst.address,
       "several adaptors could be used: 10.0.2.1 (eth1) was chosen before 10.0.3.1 (eth2)"},
      {0, {kTunnel, kLoopback, kSecond}, eTCPE_Status_Success, kSecond.address, ""},
      {0, {kTunnel, kDown, kLoopback}, eTCPE_Status_Success, kLoopback.address, ""},
      {0,
       {kDown},
       eTCPE_Status_NoAdaptor,
       0,
       "no network adaptor is up; the addresses of this machine: 10.0.1.1 (eth0, down)"},
      {kTunnel.address, all, eTCPE_Status_Success, kTunnel.address, ""},
      {0x7f000009, all, eTCPE_Status_Success, 0x7f000009, ""},
      {kDown.address,
       {kDown, kFirst},
       eTCPE_Status_AddressNotLocal,
       0,
       "no adaptor that is up has the address 10.0.1.1; the addresses of this machine: 10.0.1.1 (eth0, down), "
       "10.0.2.1 (eth1)"},
  };
  for (const auto& test : cases) {
    const TCPE_AdaptorChoice choice = TCPE_AdaptorChoice::Make(test.preferred, test.adaptors);
    EXPECT_EQ(choice.status, test.status) << test.report;
    EXPECT_EQ(choice.address, test.address) << test.report;
    EXPECT_EQ(choice.report, test.report);
  }
}

TEST(TCPE_AdaptorChoice, KeepsAnAdaptorThatStillQualifies) {
  const auto follow = [](const Sys_Adaptor& inUse, std::uint32_t preferred, const std::vector<Sys_Adaptor>& adaptors) {
    return TCPE_AdaptorChoice::Follow(TCPE_AdaptorChoice::Make(0, {inUse}), preferred, adaptors).address;
  };
  EXPECT_EQ(follow(kSecond, 0, {kLoopback, kFirst, kSecond}), kSecond.address);
  EXPECT_EQ(follow(kSecond, 0, {kLoopback, kFirst}), kFirst.address);
  EXPECT_EQ(follow(kLoopback, 0, {kLoopback, kFirst}), kFirst.address);
  EXPECT_EQ(follow(kFirst, kFirst.address, {kLoopback, kSecond}), 0U);
}

} // namespace
