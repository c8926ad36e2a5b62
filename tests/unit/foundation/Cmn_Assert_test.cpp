#include <trel/Cmn_Assert.h>

#include "tests/support/ReportCollector.h"

#include <gmock/gmock.h>

#include <stdexcept>

namespace {

TEST(Cmn_Assert, ReportsWhatFailsAndNothingElse) {
  ReportCollector reports;
  Cmn_Assert::HandleMagicAssert(true, "holds", 1);
  Cmn_Assert::HandleMagicAssert(false, "fails", 2);
  Cmn_Assert::HandleMagicAssert(false, nullptr, 3);
  EXPECT_THAT(reports.Take(), testing::ElementsAre("fails", ""));
}

TEST(Cmn_Assert, WritesOneLineToStandardErrorByDefault) {
  Cmn_Assert::SetSink([](const char*, std::int32_t) { throw std::runtime_error("sink"); });
  Cmn_Assert::HandleMagicAssert(false, "swallowed", 1);
  Cmn_Assert::SetSink(nullptr);
  testing::internal::CaptureStderr();
  Cmn_Assert::HandleMagicAssert(false, R"(a != 0@$^$@..\Source)", 17);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "trel: a != 0@$^$@..\\Source (line 17)\n");
}

} // namespace
