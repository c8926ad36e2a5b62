#include <trel/Trel_Diags.h>

#include <gtest/gtest.h>

#include <limits>

namespace {

TEST(Trel_Diags, ComparesTwoStarts) {
  constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();
  const struct {
    PlayStartData_t first;
    PlayStartData_t second;
    bool isNTSC;
    std::int64_t audio;
    std::int64_t video;
    std::int64_t edge;
  } cases[] = {
      {{5, 60, 1'000'000}, {7, 20, 1'010'000}, false, -2, 40, 30'000},
      {{5, 60, 1'010'000}, {7, 20, 1'000'000}, false, -2, 40, 30'000},
      {{0, 0, 77}, {0, 0, 77}, true, 0, 0, 0},
      {{0, 0, 0}, {0, 0, 80'000}, false, 0, 0, 40'000},
      {{0, 0, 0}, {0, 0, 33'366}, true, 0, 0, 33'366},
      {{0, 0, 0}, {0, 0, 33'367}, true, 0, 0, 33'365},
      {{0, 0, -1}, {0, 0, 39'999}, true, 0, 0, 33'366 - 6'634},
      {{kLeast, 0, kLeast}, {1, kLeast, 0}, false, std::numeric_limits<std::int64_t>::max(), kLeast, 24'192},
  };
  Trel_Diags diags;
  for (const auto& test : cases) {
    EXPECT_TRUE(diags.CalculateDiagnostics(&test.first, &test.second, test.isNTSC));
    EXPECT_TRUE(diags.OutputDiagsToVornTrace());
    EXPECT_EQ(diags.mAudioStartDifference, test.audio);
    EXPECT_EQ(diags.mVideoStartDifference, test.video);
    EXPECT_EQ(diags.mFrameEdgeOffset, test.edge);
    // Without both records only the results are left.
    EXPECT_FALSE(diags.CalculateDiagnostics(&test.first, nullptr, false) ||
                 diags.CalculateDiagnostics(nullptr, &test.second, false) || diags.OutputDiagsToVornTrace());
    EXPECT_EQ(diags.mFrameEdgeOffset, test.edge);
  }
}

} // namespace
