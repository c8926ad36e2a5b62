#include <trel/Sys_Socket.h>

#include <gtest/gtest.h>

namespace {

TEST(Sys_Socket, WritesAndReadsDottedAddresses) {
  struct Case {
    std::uint32_t address;
    const char* text;
  };
  for (const Case& test : {Case{0, "0.0.0.0"}, Case{0x0a000005, "10.0.0.5"}, Case{0xffffffff, "255.255.255.255"}}) {
    EXPECT_EQ(Sys_Socket::DecodeIPAddress(test.address), test.text);
    std::uint32_t address = 1;
    EXPECT_TRUE(Sys_Socket::EncodeIPAddress(test.text, &address)) << test.text;
    EXPECT_EQ(address, test.address);
  }
  for (const char* const text : {"", "1.2.3", "1.2.3.", "1.2.3.4.", "1.2.3.4.5", "1.2.3.256", "1.2.3.-4", "1..3.4",
                                 "01.2.3.4", "1.2.3.00", "1.2.3.4 ", " 1.2.3.4", "1,2,3,4", "0x1.2.3.4", "host"}) {
    std::uint32_t address = 77;
    EXPECT_FALSE(Sys_Socket::EncodeIPAddress(text, &address)) << text;
    EXPECT_EQ(address, 77U) << text;
  }
  EXPECT_FALSE(Sys_Socket::EncodeIPAddress(nullptr, nullptr));
}

} // namespace
