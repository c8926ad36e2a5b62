#include <trel/Sys_Umid.h>

#include <gtest/gtest.h>

#include <set>

namespace {

TEST(Sys_Umid, NeverRepeatsAndUsesAllBits) {
  constexpr std::size_t kCount = 1000;
  std::set<std::uint64_t> wide;
  std::uint64_t wideBits = 0;
  std::int32_t positiveBits = 0;
  for (std::size_t i = 0; i < kCount; ++i) {
    const std::uint64_t number = Sys_Umid::Random64();
    wide.insert(number);
    wideBits |= number;
    const std::int32_t positive = Sys_Umid::RandomPositive31();
    ASSERT_GT(positive, 0);
    positiveBits |= positive;
  }
  EXPECT_EQ(wide.size(), kCount);
  EXPECT_EQ(wideBits, ~std::uint64_t{0});
  EXPECT_EQ(positiveBits, 0x7fffffff);
}

} // namespace
