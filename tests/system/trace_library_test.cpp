#include <trel/SPSStartupOption.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_Init.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kLinesOfAThread = 500;

/// Traces to what is in the directory.
[[noreturn]] void Trace(const std::string& directory, const std::string& file) {
  std::filesystem::remove(file);
  setenv("VORNTRACE_FILE", file.c_str(), 1);
  SPSSetStartupOption("TraceLibraryDirectory", directory.c_str());
  Trel_Init::Init();
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 2; ++thread) {
    threads.emplace_back([] {
      for (int line = 0; line < kLinesOfAThread; ++line) {
        Trel_CommManager::SetIsMasterClock(true);
      }
    });
  }
  threads.clear();
  std::exit(0);
}

TEST(TraceLibraryDeathTest, WritesWhatTheLibraryTracesOrNothing) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string file = TREL_TRACE_DIRECTORY "/lines.";
  EXPECT_EXIT(Trace(TREL_TRACE_DIRECTORY, file + "whole"), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(Trace(testing::TempDir(), file + "missing"), testing::ExitedWithCode(0), "");
  EXPECT_FALSE(std::filesystem::exists(file + "missing"));
  std::ifstream stream(file + "whole");
  int lines = 0;
  for (std::string line; std::getline(stream, line); ++lines) {
    ASSERT_THAT(line, testing::MatchesRegex(R"(20..-..-..T..:..:..\.[0-9]{6}Z [0-9]+/[0-9]+ 0x4000b07 )"
                                            "Trel_CommManager::SetIsMasterClock true"));
  }
  std::filesystem::remove(file + "whole");
  EXPECT_EQ(lines, 2 * kLinesOfAThread);
}

} // namespace
