#include "foundation/Cmn_HostCall.h"

#include "tests/support/ReportCollector.h"

#include <gmock/gmock.h>

#include <stdexcept>

namespace {

using Kind = Cmn_HostCall::Kind;

TEST(Cmn_HostCall, EndsAndCountsWhatIsThrownAndReportsItEverMoreSeldom) {
  ReportCollector reports;
  const std::uint64_t before = Cmn_HostCall::CountFailures();
  for (int i = 0; i < 100; ++i) {
    EXPECT_FALSE(Cmn_HostCall::Run(Kind::trace, [] { throw std::runtime_error("broken"); }));
  }
  EXPECT_THAT(reports.Take(), testing::AllOf(testing::SizeIs(7),
                                             testing::Each(R"(noexcept(trace library): broken@$^$@..\Cmn_HostCall)")));
  EXPECT_EQ(Cmn_HostCall::Ask(Kind::byteTap, 5, []() -> int { throw 1; }), 5); // NOLINT(hicpp-exception-baseclass)
  EXPECT_EQ(Cmn_HostCall::Ask(Kind::hook, 5, [] { return 6; }), 6);
  EXPECT_THAT(reports.Take(), testing::IsEmpty());
  EXPECT_EQ(Cmn_HostCall::CountFailures() - before, 101U);
}

} // namespace
