#include <trel/SPSStartupOption.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_CorrelatedClockMgr.h>
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

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr int kLinesOfAThread = 500;

/// Traces with what is in the directory; returns the lines in a file.
[[noreturn]] void Trace(const std::string& directory, const std::string& file) {
  std::filesystem::remove(file);
  setenv("VORNTRACE_FILE", file.c_str(), 1);
  SPSSetStartupOption("TraceLibraryDirectory", directory.c_str());
  Trel_Init::Init();
  Trel_CommManager::SetIsSatellite(true);
  Trel_CommManager::Initialize(nullptr, nullptr);
  Trel_Cmd_LastUpdateRunningTimeValid voucher;
  voucher.SetRoundTripTime(3'000);
  Trel_CorrelatedClockMgr::HandleTimingCommand(&voucher);
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

std::vector<std::string> Lines(const std::string& file) {
  std::vector<std::string> lines;
  std::ifstream stream(file);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

TEST(TraceLibraryDeathTest, WritesWhatTheLibraryTracesOrNothing) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string file = testing::TempDir() + "trel_trace_library_test.";
  EXPECT_EXIT(Trace(TREL_TRACE_DIRECTORY, file + "whole"), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(Trace(TREL_INCOMPLETE_TRACE_DIRECTORY, file + "incomplete"), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(Trace(testing::TempDir(), file + "missing"), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(Trace("", file + "none"), testing::ExitedWithCode(0), "");
  for (const char* const nothing : {"incomplete", "missing", "none"}) {
    EXPECT_THAT(Lines(file + nothing), IsEmpty());
  }
  const std::string prefix =
      R"(20[0-9]{2}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{6}Z [0-9]+/[0-9]+ 0x4000b07 )";
  std::vector<std::string> lines = Lines(file + "whole");
  std::filesystem::remove(file + "whole");
  ASSERT_EQ(lines.size(), 3U + 2 * kLinesOfAThread);
  for (std::size_t i = 3; i < lines.size(); ++i) {
    ASSERT_THAT(lines[i], MatchesRegex(prefix + "Trel_CommManager::SetIsMasterClock true"));
  }
  lines.resize(3);
  EXPECT_THAT(lines, ElementsAre(MatchesRegex(prefix + "Trel_CommManager::SetIsSatellite true"),
                                 MatchesRegex(prefix + "Trel_CommManager::Initialize"),
                                 MatchesRegex(prefix + R"(TREL: New Max Network Latency \(non-master\): 3000 usecs)")));
}

} // namespace
