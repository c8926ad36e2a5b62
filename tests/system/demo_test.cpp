#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <csignal>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kRunTimeOut{60'000};

/// The program in a process of its own, with both outputs in one pipe.
class Program {
public:
  explicit Program(std::vector<std::string> arguments) {
    std::array<int, 2> ends = {};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    mOutput = ends[0];
    arguments.insert(arguments.begin(), TREL_PROGRAM);
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
      pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    mId = fork();
    if (mId == 0) {
      dup2(ends[1], STDOUT_FILENO);
      dup2(ends[1], STDERR_FILENO);
      execv(TREL_PROGRAM, pointers.data());
      _exit(127);
    }
    close(ends[1]);
  }
  ~Program() {
    close(mOutput);
    if (!mHasEnded) {
      kill(mId, SIGKILL);
      waitpid(mId, nullptr, 0);
    }
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  pid_t Id() const { return mId; }
  const std::string& Output() const { return mText; }

  /// Reads until the output so far contains a match, and gives its first group.
  testing::AssertionResult ReadUntil(const std::string& pattern, milliseconds timeOut, std::string* group = nullptr) {
    std::smatch match;
    while (!std::regex_search(mText, match, std::regex(pattern))) {
      if (!Read(&timeOut)) {
        return testing::AssertionFailure() << "no \"" << pattern << "\" in\n" << mText;
      }
    }
    if (group != nullptr) {
      *group = match[1];
    }
    return testing::AssertionSuccess();
  }
  /// Reads until nobody holds the output open any more: the program and all that it has started have ended.
  testing::AssertionResult ReadAll(milliseconds timeOut) {
    while (Read(&timeOut)) {
    }
    return mIsAtEnd ? testing::AssertionSuccess() : testing::AssertionFailure() << "still running after\n" << mText;
  }
  /// Exit status, or minus the signal. After ReadAll.
  int Status() {
    int status = 0;
    EXPECT_EQ(waitpid(mId, &status, 0), mId);
    mHasEnded = true;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
  }

private:
  bool Read(milliseconds* timeOut) {
    const auto begin = Clock::now();
    pollfd descriptor = {mOutput, POLLIN, 0};
    std::array<char, 4096> bytes = {};
    if (mIsAtEnd || poll(&descriptor, 1, static_cast<int>(timeOut->count())) != 1) {
      return false;
    }
    const ssize_t count = read(mOutput, bytes.data(), bytes.size());
    mText.append(bytes.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
    mIsAtEnd = count <= 0;
    *timeOut = std::max(milliseconds(0), *timeOut - std::chrono::duration_cast<milliseconds>(Clock::now() - begin));
    return !mIsAtEnd;
  }

  pid_t mId = -1;
  int mOutput = -1;
  bool mIsAtEnd = false;
  bool mHasEnded = false;
  std::string mText;
};

void ExpectWithin(const std::string& what, std::int64_t measured, std::int64_t limit) {
  std::cout << what << ": " << measured << " (limit " << limit << ")\n";
  EXPECT_LE(measured, limit) << what;
}

class Demo : public testing::Test {
protected:
  ~Demo() override {
    std::remove(mFile.c_str());
    std::remove(mPage.c_str());
  }

  nlohmann::json Json() const { return nlohmann::json::parse(std::ifstream(mFile)); }

  /// What the report's pictures are drawn from.
  nlohmann::json PageData() const {
    std::ifstream file(mPage);
    const std::string page(std::istreambuf_iterator<char>(file), {});
    const std::string begin = R"(id="data">)";
    const std::size_t at = page.find(begin) + begin.size();
    return nlohmann::json::parse(page.substr(at, page.find('<', at) - at));
  }

  const std::string mFile = testing::TempDir() + "trel_demo_" + std::to_string(getpid()) + ".json";
  const std::string mPage = testing::TempDir() + "trel_demo_" + std::to_string(getpid()) + ".html";
};

TEST_F(Demo, SystemsStartTogetherInEachNumbering) {
  for (const std::string numbering : {"current", "legacy"}) {
    SCOPED_TRACE(numbering);
    std::vector<std::string> arguments = {"demo",   "--satellites", "2",        "--rounds", "2",
                                          "--json", mFile,          "--report", mPage};
    if (numbering == "legacy") {
      arguments.emplace_back("--legacy");
    }
    Program program(arguments);
    ASSERT_TRUE(program.ReadAll(kRunTimeOut));
    ASSERT_EQ(program.Status(), 0) << program.Output();

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
    ASSERT_EQ(results.at("starts").size(), 2U);
    for (const auto& start : results.at("starts")) {
      EXPECT_GT(start.at("agreed_running_time"), 0);
      std::vector<std::int64_t> late;
      for (const char* address : {"127.0.0.2", "127.0.0.3", "127.0.0.4"}) {
        late.push_back(start.at("late_us").at(address));
      }
      const auto [first, last] = std::minmax_element(late.begin(), late.end());
      EXPECT_EQ(start.at("spread_us"), *last - *first);
      ExpectWithin("start spread, us", start.at("spread_us"), 3000);
    }

    const nlohmann::json page = PageData();
    ASSERT_EQ(page.at("systems").size(), 3U);
    for (const auto& system : page.at("systems")) {
      EXPECT_EQ(system.at("clock").size() > 20, system.at("address") != "127.0.0.2");
      for (const auto& sample : system.at("clock")) { // time, error, bound, residual
        EXPECT_TRUE(sample.at(1).is_null() || std::abs(sample.at(1).get<double>()) < 3000) << sample;
      }
    }
    for (std::size_t round = 0; round < 2; ++round) {
      EXPECT_EQ(page.at("starts").at(round).at("late"), results.at("starts").at(round).at("late_us"));
    }
  }
}

TEST_F(Demo, TheOthersGoOnWithoutAKilledOrHangingSatellite) {
  for (const int signal : {SIGKILL, SIGSTOP}) {
    SCOPED_TRACE(signal);
    Program program({"demo", "--satellites", "2", "--rounds", "3", "--json", mFile});
    std::string id;
    ASSERT_TRUE(program.ReadUntil("127\\.0\\.0\\.4: process (\\d+)", kRunTimeOut, &id));
    ASSERT_TRUE(program.ReadUntil("round 1: .* started", kRunTimeOut));
    const auto begin = Clock::now();
    ASSERT_EQ(kill(std::stoi(id), signal), 0);
    ASSERT_TRUE(program.ReadUntil("127\\.0\\.0\\.2 has lost 127\\.0\\.0\\.4", milliseconds(10'000)));
    ExpectWithin("loss reported after, ms", std::chrono::duration_cast<milliseconds>(Clock::now() - begin).count(),
                 3500);
    ASSERT_TRUE(program.ReadAll(kRunTimeOut));
    EXPECT_EQ(program.Status(), 1);

    const nlohmann::json results = Json();
    ASSERT_EQ(results.at("starts").size(), 3U);
    for (const auto& start : results.at("starts")) {
      EXPECT_TRUE(start.at("late_us").contains("127.0.0.3"));
    }
    EXPECT_FALSE(results.at("starts").back().at("late_us").contains("127.0.0.4"));
    EXPECT_NE(results.at("failures").dump().find("127.0.0.4"), std::string::npos);
  }
}

TEST_F(Demo, LeavesNoProcessBehind) {
  for (const int signal : {SIGINT, SIGKILL}) {
    SCOPED_TRACE(signal);
    Program program({"demo", "--satellites", "2"});
    ASSERT_TRUE(program.ReadUntil("clock locked", kRunTimeOut));
    kill(program.Id(), signal);
    EXPECT_TRUE(program.ReadAll(milliseconds(2000)));
    EXPECT_EQ(program.Status(), signal == SIGINT ? 130 : -SIGKILL);
    EXPECT_EQ(program.Output().find("interrupted") != std::string::npos, signal == SIGINT);
  }
}

TEST_F(Demo, SaysWhatIsWrongWithACommandLine) {
  const struct {
    std::vector<std::string> arguments;
    int status;
    std::string text;
  } cases[] = {
      {{"--help"}, 0, "demo"},
      {{"--version"}, 0, "trel "},
      {{"demo", "--help"}, 0, "--satellites"},
      {{}, 2, "A command is required"},
      {{"nonsense"}, 2, "nonsense"},
      {{"demo", "--nonsense"}, 2, "--nonsense"},
      {{"demo", "--satellites", "0"}, 2, "--satellites"},
      {{"demo", "--satellites", "65"}, 2, "--satellites"},
      {{"demo", "--rounds", "many"}, 2, "--rounds"},
      {{"demo", "--json", "/no/such/folder/file"}, 1, "/no/such/folder/file"},
      {{"demo", "--report", "/no/such/folder/page"}, 1, "/no/such/folder/page"},
      {{"report", "/no/such/recording"}, 1, "/no/such/recording"},
      {{"report", "/dev/null"}, 1, "no recording"},
  };
  for (const auto& expected : cases) {
    Program program(expected.arguments);
    ASSERT_TRUE(program.ReadAll(kRunTimeOut));
    EXPECT_EQ(program.Status(), expected.status) << program.Output();
    EXPECT_NE(program.Output().find(expected.text), std::string::npos) << program.Output();
  }
}

} // namespace
