#include <trel/TCPE_ConnectionID.h>

#include <gtest/gtest.h>

namespace {

TEST(TCPE_ConnectionID, IsValidWithAddressAndPortAndIsOrderedByThem) {
  using ID = TCPE_ConnectionID;
  EXPECT_FALSE(ID().IsValid());
  EXPECT_FALSE(ID(0xffffffff, 1).IsValid());
  EXPECT_FALSE(ID(1, 0).IsValid());
  EXPECT_TRUE(ID(0, 1).IsValid());
  const ID ascending[] = {{0x0a000004, 9000}, {0x0a000005, 80}, {0x0a000005, 81}, {0xff000000, 1}};
  for (const ID& left : ascending) {
    for (const ID& right : ascending) {
      EXPECT_EQ(left < right, &left < &right);
      EXPECT_EQ(left == right, &left == &right);
      EXPECT_EQ(left != right, &left != &right);
    }
  }
  std::uint32_t address = 0;
  std::uint16_t port = 0;
  ID::ConnectionID2AddressAndPort(ID::AddressAndPort2ConnectionID(0x0a000005, 28282), &address, &port);
  EXPECT_EQ(ID(address, port), ID(0x0a000005, 28282));
  EXPECT_EQ(ID::DecodeConnectionID({address, port}), "10.0.0.5 28282");
}

} // namespace
