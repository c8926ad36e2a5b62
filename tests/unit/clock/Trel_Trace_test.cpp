#include <trel/Trel_CommManager.h>

#include "link/clock/Trel_Trace.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

namespace {

/// In the order in which they are resolved.
const std::string kNames =
    "VornTraceIsActiveFunc VornTraceReloadConfigsFunc VornTraceFormat VornTraceFormatQuiet VornTraceFormatTimestamp "
    "VornTracePuts VornTraceMem VornTraceStack VornTraceChangeFacilityPriorityFunc VornTraceRegisterHandlerFunc "
    "VornTraceFacilityOnFunc VornTraceSetClockCallbackFunc VornTraceSetNameFunc VornTraceOSErrToString "
    "VornTraceLegacyFormat VornTraceGetTracePath ";

int sAnswer = 0;
int sTimesAsked = 0;
bool sIsFacilityOn = true;
std::vector<std::string> sLines;

int IsActive() {
  ++sTimesAsked;
  return sAnswer;
}

bool IsFacilityOn(std::uint32_t category) { return sIsFacilityOn && category == 0x4000b07; }

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
  static std::string Bind(int answer, const std::string& missing) {
    sAnswer = answer;
    sTimesAsked = 0;
    sLines.clear();
    std::string asked;
    Trel_Trace::Bind([&](const std::string& name) {
      asked += name + " ";
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
  EXPECT_EQ(Bind(1, ""), kNames);
  EXPECT_EQ(sTimesAsked, 1);
  std::istringstream names(kNames);
  for (std::string name; names >> name;) {
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

TEST_F(Trel_TraceTest, TheFacadeTracesItsStartAndItsRoles) {
  Bind(1, "");
  Trel_CommPreferences nowhere;
  nowhere.SetLocalInterfaceAddress(0xc0000201); // no adaptor has 192.0.2.1
  for (const bool on : {true, false}) {
    sIsFacilityOn = on;
    Trel_CommManager::Initialize(&nowhere, nullptr);
    Trel_CommManager::SetIsSatellite(true);
    Trel_CommManager::SetIsMasterClock(false);
    Trel_CommManager::SetMasterSystemIPAddress(0x7f000002);
    EXPECT_EQ(sLines, (std::vector<std::string>{"67111687 Trel_CommManager::Initialize\n",
                                                "67111687 Trel_CommManager::SetIsSatellite true",
                                                "67111687 Trel_CommManager::SetIsMasterClock false",
                                                "67111687 Trel_CommManager::SetMasterSystemIPAddress 127.0.0.2"}));
  }
}

} // namespace
