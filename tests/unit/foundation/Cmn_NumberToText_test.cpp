#include <trel/Cmn_NumberToText.h>

#include <gtest/gtest.h>

#include <limits>

namespace {

TEST(Cmn_NumberToText, WritesTheExtremes) {
  EXPECT_EQ(Cmn_Int32ToString(0), "0");
  EXPECT_EQ(Cmn_Int32ToString(std::numeric_limits<std::int32_t>::min()), "-2147483648");
  EXPECT_EQ(Cmn_UInt32ToString(std::numeric_limits<std::uint32_t>::max()), "4294967295");
  EXPECT_EQ(Cmn_Int64ToString(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
}

} // namespace
