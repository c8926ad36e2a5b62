#include "link/host/Trel_LinkTexts.h"

#include <gtest/gtest.h>

namespace {

TEST(Trel_LinkTexts, CountsThoseWhoStarted) {
  Trel_LinkEvent event{.kind = Trel_LinkEvent::Kind::together};
  event.outcome.missing[0x0a000001] = Trel_StartOutcome::Missing::notPrimed;
  EXPECT_EQ(Trel_LinkTexts::Describe(event, true), "no system started\n  10.0.0.1: did not start, it was not primed");
  event.outcome = {.late = {{0x0a000001, 7}}};
  EXPECT_EQ(Trel_LinkTexts::Describe(event, true), "1 system started\n  10.0.0.1: 7 us late");
  event.outcome = {.late = {{0x0a000001, 7}, {0x0a000002, 4}}, .spread = 3};
  EXPECT_EQ(Trel_LinkTexts::Describe(event, true),
            "2 systems started within 3 us\n  10.0.0.1: 7 us late\n  10.0.0.2: 4 us late");
}

} // namespace
