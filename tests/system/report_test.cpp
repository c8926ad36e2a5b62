#include "tests/support/Shell.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>

#include <unistd.h>

namespace {

using nlohmann::json;

constexpr int kSystems = 8;
constexpr int kRounds = 3;
constexpr const char* kHostileName = "</script><img src=x onerror=alert(1)>&@DATA@";

std::ptrdiff_t Count(const std::string& text, const std::string& pattern) {
  const std::regex regex(pattern);
  return std::distance(std::sregex_iterator(text.begin(), text.end(), regex), {});
}

class Report : public testing::Test {
protected:
  Report() { std::filesystem::create_directories(mFolder); }
  ~Report() override { std::filesystem::remove_all(mFolder); }

  void Record(json event, const char* name, double seconds) {
    event["event"] = name;
    event["time_us"] = std::llround(seconds * 1e6);
    mRecording << event.dump() << '\n';
  }

  /// Eight systems for ten minutes, ten samples a second, with everything that must not disturb a reader.
  void RecordSystems() {
    mRecording.open(mFolder + "/recording");
    mRecording << "no event\n[]\n{\"event\":7}\n";
    for (int system = 0; system < kSystems; ++system) {
      const std::string address = "10.0.0." + std::to_string(system + 1);
      const std::string name = system == 0 ? kHostileName : "System " + std::to_string(system + 1);
      Record({{"address", address}, {"name", name}, {"role", "satellite"}}, "system", 0);
      Record({{"address", 7}, {"state", {}}}, "clock", 0);
      Record({{"address", address}, {"running_time", 1e300}, {"late_us", "x"}}, "started", 0);
      for (int sample = 0; sample < 6'000; ++sample) {
        const bool isPeak = sample == 3'001;
        Record({{"address", address},
                {"state", sample < 50 ? "acquiring" : "stable"},
                {"reason", kHostileName},
                {"error_us", isPeak ? 777.0 : 20 * std::sin(sample / 100.0 + system)},
                {"error_bound_us", 40 + system},
                {"residual_us", 5},
                {"accepted", sample},
                {"round_trip_us", 100 + sample % 50}},
               "clock", sample / 10.0);
      }
      for (int round = 0; round < kRounds; ++round) {
        Record({{"address", address}, {"running_time", 1'000'000 * round}, {"late_us", 10 * system - 20}}, "started",
               100 + round);
      }
    }
    Record({{"text", kHostileName}}, "failure", 600);
    mRecording.close();
  }

  const std::string mFolder = testing::TempDir() + "trel_report_" + std::to_string(getpid());
  const std::string mPage = mFolder + "/recording.html";
  std::ofstream mRecording;
};

TEST_F(Report, PageHoldsWhatWasRecordedAndShowsItInABrowser) {
  RecordSystems();
  const auto [status, output] = RunShell(TREL_PROGRAM " report " + mFolder + "/recording 2>&1");
  ASSERT_EQ(status, 0) << output;
  EXPECT_THAT(output, testing::HasSubstr("3 lines are no events"));
  std::ifstream file(mPage);
  const std::string page(std::istreambuf_iterator<char>(file), {});
  EXPECT_EQ(Count(page, "<img"), 0);
  EXPECT_EQ(Count(page, "https?://(?!www\\.w3\\.org/2000/svg)"), 0); // nothing is loaded
  EXPECT_EQ(Count(page, "\\[300\\.1,777\\.0,"), kSystems);           // the extremes survive the thinning
  EXPECT_LT(page.size(), 1'500'000U);

  const std::string browser =
      RunShell("command -v chromium || command -v chromium-browser || command -v google-chrome").output;
  if (browser.empty()) {
    GTEST_SKIP() << "no Chromium here: what the browser makes of the page was not tested";
  }
  const std::string dom =
      RunShell("timeout 60 " + browser.substr(0, browser.find('\n')) +
               " --headless --no-sandbox --disable-gpu --user-data-dir=" + mFolder +
               "/profile --enable-logging=stderr --dump-dom file://" + mPage + " 2>" + mFolder + "/log")
          .output;
  std::ifstream log(mFolder + "/log");
  const std::string said(std::istreambuf_iterator<char>(log), {});
  EXPECT_EQ(Count(said, "CONSOLE(?!.*source: chrome://)"), 0) << said; // the browser has pages of its own
  EXPECT_EQ(Count(dom, "data-drawn=\"yes\""), 1) << dom.substr(0, 2'000);
  EXPECT_EQ(Count(dom, "<img"), 0);
  EXPECT_EQ(Count(dom, "<path class=\"curve\""), 3 * kSystems); // error, bound, residuals
  EXPECT_EQ(Count(dom, "<g class=\"mark\""), kRounds * kSystems);
  EXPECT_EQ(Count(dom, "<button "), kSystems);
  EXPECT_EQ(Count(dom, "class=\"empty\""), 0);
}

} // namespace
