#include <trel/Cmn_FeatureAuthorization.h>
#include <trel/SPSStartupOption.h>

#include "tests/support/ReportCollector.h"

#include <gmock/gmock.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class SPSStartupOption : public testing::Test {
protected:
  ~SPSStartupOption() override {
    unsetenv("TREL_TestOption");
    SPSSetStartupOption("TestOption", nullptr);
    std::filesystem::remove(mFile);
    PlatformSupport_Initialize(false);
  }

  void ReadOptionsFile(const std::string& content) {
    std::ofstream(mFile) << content;
    setenv("TREL_OPTIONS_FILE", mFile.c_str(), 1);
    PlatformSupport_Initialize(true);
  }

  ReportCollector mReports;
  std::string mFile = testing::TempDir() + "trel-options-" + std::to_string(getpid());
};

TEST_F(SPSStartupOption, TakesTheStrongestSource) {
  PlatformSupport_Initialize(false);
  EXPECT_EQ(SPSStartupOptionSInt32("TestOption", 11), 11);
  EXPECT_EQ(SPSStartupOptionText("TestOption", "default"), "default");
  EXPECT_EQ(SPSStartupOptionText("TestOption", nullptr), "");

  ReadOptionsFile("TestOption = 1\n");
  EXPECT_EQ(SPSStartupOptionSInt32("TestOption", 11), 1);
  setenv("TREL_TestOption", "2", 1);
  EXPECT_EQ(SPSStartupOptionSInt32("TestOption", 11), 2);
  SPSSetStartupOption("TestOption", "3");
  EXPECT_EQ(SPSStartupOptionSInt32("TestOption", 11), 3);
  SPSSetStartupOption("TestOption", nullptr);
  EXPECT_EQ(SPSStartupOptionSInt32("TestOption", 11), 2);
  EXPECT_THAT(mReports.Take(), IsEmpty());
}

TEST_F(SPSStartupOption, ReportsWhatIsNoNumberAndTakesTheDefault) {
  SPSSetStartupOption("TestOption", "-2147483648");
  EXPECT_EQ(SPSStartupOptionSInt32("TestOption", 11), std::numeric_limits<std::int32_t>::min());
  EXPECT_THAT(mReports.Take(), IsEmpty());
  for (const char* const value : {"2147483648", "-2147483649", "", "x", "7x", " 7", "0x7", "7.0"}) {
    SPSSetStartupOption("TestOption", value);
    EXPECT_EQ(SPSStartupOptionSInt32("TestOption", 11), 11) << value;
    const std::string quoted = std::string("\"") + value + "\"";
    EXPECT_THAT(mReports.Take(), ElementsAre(AllOf(HasSubstr("TestOption"), HasSubstr(quoted)))) << value;
  }
}

TEST_F(SPSStartupOption, SkipsMalformedLinesOfTheFile) {
  ReadOptionsFile("# comment = 1\n"
                  "\n"
                  "  First=a = b  \r\n"
                  "no assignment\n"
                  "= 3\n"
                  "two words = 3\n"
                  "Empty =\n"
                  "Last = 5 # five");
  EXPECT_THAT(mReports.Take(),
              ElementsAre(HasSubstr(mFile + ":4:"), HasSubstr(mFile + ":5:"), HasSubstr(mFile + ":6:")));
  EXPECT_EQ(SPSStartupOptionText("First", ""), "a = b");
  EXPECT_EQ(SPSStartupOptionText("Empty", "default"), "");
  EXPECT_EQ(SPSStartupOptionText("Last", ""), "5 # five");

  std::filesystem::remove(mFile);
  PlatformSupport_Initialize(true);
  EXPECT_EQ(SPSStartupOptionText("First", "gone"), "gone");
  EXPECT_THAT(mReports.Take(), IsEmpty());

  setenv("TREL_OPTIONS_FILE", testing::TempDir().c_str(), 1);
  PlatformSupport_Initialize(true);
  EXPECT_THAT(mReports.Take(), ElementsAre(HasSubstr("cannot be read")));
}

} // namespace
