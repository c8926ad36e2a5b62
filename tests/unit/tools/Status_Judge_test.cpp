#include "tools/trel/common/Status_Judge.h"
#include "tools/trel/common/Status_Snapshot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>

namespace {

TEST(Status_Judge, ShowsAnImplausibleMasterAndAJumpAsWhatTheyAre) {
  constexpr std::int64_t kJump = -3'000'000;
  const struct {
    Trel_ClockStatus clock;
    Status_Sync sync;
    const char* why;
  } cases[] = {
      {{.state = eTrel_ClockState_Stable, .isLocked = true, .errorBound = 40, .rate = 300, .span = 2'000'000},
       Status_Sync::yes,
       "to within 40 us"},
      {{.state = eTrel_ClockState_Locked, .isLocked = true, .errorBound = 90'000, .rate = -999'000, .span = 2'000'000},
       Status_Sync::no,
       "runs 1000 times as fast"},
      {{.state = eTrel_ClockState_Stable, .isLocked = true, .errorBound = 40, .rate = 2'000, .span = 2'000'000},
       Status_Sync::no,
       "runs 0.998 times as fast"},
      {{.state = eTrel_ClockState_Locked, .isLocked = true, .errorBound = 40, .rate = -2e6, .span = 2'000'000},
       Status_Sync::no,
       "runs backwards"},
      // Nobody knows a rate that well from measurements of 0.3 s.
      {{.state = eTrel_ClockState_Locked, .isLocked = true, .errorBound = 900, .rate = 2'000, .span = 300'000},
       Status_Sync::soon,
       "to within 900 us"},
      {{.state = eTrel_ClockState_Acquiring,
        .reason = eTrel_ClockReason_ClockJumped,
        .isLocked = true,
        .jumps = 2,
        .lastJump = kJump},
       Status_Sync::no,
       "this system's by 3.0 s back, or the master's ahead, the last of 2 jumps"},
  };
  for (const auto& expected : cases) {
    Status_Snapshot snapshot;
    snapshot.isLinked = true;
    snapshot.clock = expected.clock;
    Status_Judge(snapshot);
    EXPECT_EQ(snapshot.sync, expected.sync) << snapshot.why;
    EXPECT_THAT(snapshot.why, testing::HasSubstr(expected.why));
  }
}

} // namespace
