#include <trel/Trel_Cmd_Connection.h>
#include <trel/host/Trel_CommandCatalogue.h>

#include "tests/support/FieldValues.h"

#include <limits>
#include <span>
#include <string>

#include <gtest/gtest.h>

namespace {

Trel_FieldValue Number(std::int64_t number) { return {number}; }

TEST(Trel_CommandCatalogueTest, ChecksRangesAndOwnership) {
  Trel_Cmd_ConnectTo command;
  const auto fields = command.GetDescription()->command;
  const auto set = [&](std::size_t field, std::int64_t number) {
    return Trel_CommandCatalogue::SetField(command, fields[field], Number(number));
  };
  EXPECT_TRUE(set(0, 0xffffffff) && set(1, 65535) && set(2, std::numeric_limits<std::int32_t>::min()) && set(6, 255));
  EXPECT_FALSE(set(0, 0x100000000) || set(1, 65536) || set(2, std::int64_t{1} << 31U) || set(6, 256));
  EXPECT_FALSE(set(0, -1) || set(1, -1) || set(2, std::numeric_limits<std::int64_t>::min()) || set(6, -1));
  EXPECT_EQ(command.GetConnectToIPAddress(), 0xffffffffU);
  EXPECT_EQ(command.GetConnectToPort(), 65535);
  EXPECT_TRUE(Trel_CommandCatalogue::SetField(command, fields[3], {std::string(30, 'x')}));
  EXPECT_STREQ(command.GetSystemName(), "Unknown System Name");
  EXPECT_FALSE(Trel_CommandCatalogue::SetField(command, fields[3], {std::string("a\0b", 3)}));

  const Trel_FieldDescription& foreign = Trel_Cmd_Connect::Describe().command[0];
  EXPECT_FALSE(Trel_CommandCatalogue::SetField(command, foreign, Number(1)));
  EXPECT_FALSE(Trel_CommandCatalogue::GetField(command, foreign).has_value());
  EXPECT_EQ(Trel_CommandCatalogue::Find("prime"), nullptr);
  EXPECT_EQ(Trel_CommandCatalogue::Construct({}), nullptr);
}

} // namespace
