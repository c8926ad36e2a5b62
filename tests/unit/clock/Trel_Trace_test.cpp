#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_CorrelatedClockMgr.h>

#include "link/clock/Trel_Trace.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace {

int sAnswer = 0;
int sTimesAsked = 0;
std::vector<std::string> sLines;

int IsActive() {
  ++sTimesAsked;
  return sAnswer;
}

bool IsFacilityOn(std::uint32_t category) { return category == 0x4000b07; }

void Format(std::uint32_t category, const char* format, ...) {
  char line[100];
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  sLines.push_back(std::to_string(category) + " " + line);
}

void Unused() { ADD_FAILURE() << "called"; }

class Trel_TraceTest : public testing::Test {
protected:
  ~Trel_TraceTest() override {
    Trel_Trace::Bind([](const char*) { return nullptr; });
    Trel_CommManager::Terminate();
  }

  /// Binds a trace library that lacks one name; returns the names that it was asked for.
  static std::vector<std::string> Bind(int answer, const std::string& missing) {
    sAnswer = answer;
    sTimesAsked = 0;
    sLines.clear();
    std::vector<std::string> asked;
    Trel_Trace::Bind([&](const std::string& name) {
      asked.push_back(name);
      return name == missing                     ? nullptr
             : name == "VornTraceIsActiveFunc"   ? reinterpret_cast<Sys_DynamicLibrary::Function>(&IsActive)
             : name == "VornTraceFacilityOnFunc" ? reinterpret_cast<Sys_DynamicLibrary::Function>(&IsFacilityOn)
             : name == "VornTraceFormat"         ? reinterpret_cast<Sys_DynamicLibrary::Function>(&Format)
                                                 : &Unused;
    });
    return asked;
  }
};

TEST_F(Trel_TraceTest, BindsEveryEntryPointOrNone) {
  const std::vector<std::string> names = Bind(1, "");
  EXPECT_EQ(names.size(), 16U);
  EXPECT_EQ(sTimesAsked, 1);
  for (const std::string& name : names) {
    Bind(1, name);
    EXPECT_EQ(sTimesAsked, 0) << name;
    Trel_CommManager::SetIsSatellite(true);
    EXPECT_TRUE(sLines.empty()) << name;
  }
  for (const int answer : {0, 0x100, 0x101, 0x80, -1}) {
    Bind(answer, "");
    EXPECT_EQ(Trel_Trace::IsUsable(), (answer & 0xff) != 0) << answer;
  }
}

TEST_F(Trel_TraceTest, TellsRolesAndEachNewMaximumOfTheLatency) {
  Bind(1, "");
  Trel_CommManager::SetIsMasterClock(false);
  Trel_CommManager::SetMasterSystemIPAddress(0x7f000002);
  Trel_CorrelatedClockMgr::Initialize();
  for (const std::int64_t roundTripTime : {3'000LL, 2'500LL, 0x1'0000'1000LL}) {
    Trel_Cmd_LastUpdateRunningTimeValid voucher;
    voucher.SetRoundTripTime(roundTripTime);
    Trel_CorrelatedClockMgr::HandleTimingCommand(&voucher);
  }
  EXPECT_EQ(sLines, (std::vector<std::string>{"67111687 Trel_CommManager::SetIsMasterClock false",
                                              "67111687 Trel_CommManager::SetMasterSystemIPAddress 127.0.0.2",
                                              "67111687 TREL: New Max Network Latency (non-master): 3000 usecs",
                                              "67111687 TREL: New Max Network Latency (non-master): 4096 usecs"}));
  Trel_CorrelatedClockMgr::Terminate();
}

} // namespace
