#include "tests/support/HostProcess.h"
#include "tests/support/TestSystem.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kRunTimeOut{60'000};

class Demo : public testing::Test {
protected:
  ~Demo() override {
    std::remove(mFile.c_str());
    std::remove(mPage.c_str());
  }

  nlohmann::json Json() const { return nlohmann::json::parse(std::ifstream(mFile)); }

  std::string Page() const {
    std::ifstream file(mPage);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  const std::string mFile = testing::TempDir() + "trel_demo_" + std::to_string(getpid()) + ".json";
  const std::string mPage = testing::TempDir() + "trel_demo_" + std::to_string(getpid()) + ".html";
};

TEST_F(Demo, SystemsStartTogetherInEachNumbering) {
  for (const std::string numbering : {"current", "legacy"}) {
    SCOPED_TRACE(numbering);
    std::vector<std::string> arguments = {"demo",   "--satellites", "2",        "--rounds", "3",
                                          "--json", mFile,          "--report", mPage};
    if (numbering == "legacy") {
      arguments.emplace_back("--legacy");
    }
    HostProcess program(arguments);
    ASSERT_EQ(program.End(kRunTimeOut), 0) << program.Text();

    const nlohmann::json results = Json();
    EXPECT_EQ(results.at("numbering"), numbering);
    EXPECT_TRUE(results.at("failures").empty());
    ASSERT_EQ(results.at("satellites").size(), 2U);
    for (const auto& satellite : results.at("satellites")) {
      const std::string address = satellite.at("address");
      EXPECT_NE(satellite.at("offset_us"), 0);
      EXPECT_NE(satellite.at("drift_ppm"), 0);
      EXPECT_NE(satellite.at("name"), "");
      EXPECT_GT(satellite.at("linked_ms"), 0);
      EXPECT_GT(satellite.at("locked_ms"), satellite.at("linked_ms"));
      const auto& error = satellite.at("clock_error_us");
      ExpectWithin(address + " clock error p50, us", error.at("p50"), 200);
      ExpectWithin(address + " clock error p99, us", error.at("p99"), 600);
      EXPECT_GE(error.at("max"), error.at("p99"));
      EXPECT_GT(satellite.at("error_bound_us").at("p50"), 0);
    }
    ASSERT_EQ(results.at("starts").size(), 3U);
    std::int64_t smallestSpread =
        50'000; // whatever else the machine computes; that it does so at each start is unlikely
    for (const auto& start : results.at("starts")) {
      EXPECT_GT(start.at("agreed_running_time"), 0);
      std::vector<std::int64_t> late;
      for (const char* address : {"127.0.0.2", "127.0.0.3", "127.0.0.4"}) {
        late.push_back(start.at("late_us").at(address));
      }
      const auto [first, last] = std::minmax_element(late.begin(), late.end());
      EXPECT_EQ(start.at("spread_us"), *last - *first);
      ExpectWithin("start spread, us", start.at("spread_us"), 50'000);
      smallestSpread = std::min(smallestSpread, *last - *first);
    }
    ExpectWithin("smallest start spread, us", smallestSpread, 3000);
    EXPECT_NE(Page().find("127.0.0.4"), std::string::npos); // what is on a report has tests of its own
  }
}

TEST_F(Demo, TheOthersGoOnWithoutAHangingSatellite) {
  HostProcess program({"demo", "--satellites", "2", "--rounds", "3", "--json", mFile});
  const std::string id = program.AwaitText("127\\.0\\.0\\.4: process (\\d+)", kRunTimeOut);
  program.AwaitText("round 1: .* started", kRunTimeOut);
  ASSERT_EQ(kill(std::stoi(id), SIGSTOP), 0);
  program.AwaitText("127\\.0\\.0\\.2 has lost 127\\.0\\.0\\.4", kRunTimeOut);
  EXPECT_EQ(program.End(kRunTimeOut), 1);

  const nlohmann::json results = Json();
  ASSERT_EQ(results.at("starts").size(), 3U);
  for (const auto& start : results.at("starts")) {
    EXPECT_TRUE(start.at("late_us").contains("127.0.0.3"));
  }
  EXPECT_FALSE(results.at("starts").back().at("late_us").contains("127.0.0.4"));
  EXPECT_NE(results.at("failures").dump().find("127.0.0.4"), std::string::npos);
}

TEST_F(Demo, LeavesNoProcessBehind) {
  for (const int signal : {SIGINT, SIGKILL}) {
    SCOPED_TRACE(signal);
    HostProcess program({"demo", "--satellites", "2"});
    program.AwaitText("clock locked", kRunTimeOut);
    kill(program.Id(), signal);
    EXPECT_EQ(program.End(milliseconds(2000)), signal == SIGINT ? 130 : -SIGKILL); // also of those that it has started
    EXPECT_EQ(program.Text().find("interrupted") != std::string::npos, signal == SIGINT);
  }
}

} // namespace
