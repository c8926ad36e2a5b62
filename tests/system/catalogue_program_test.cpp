#include "tests/support/Shell.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>

namespace {

/// Runs the program with the words of a shell.
ShellOutcome RunProgram(const std::string& arguments) { return RunShell(TREL_PROGRAM " " + arguments); }

TEST(CatalogueProgramTest, EncodesAndDecodes) {
  const struct {
    const char* command;
    const char* fields; // as decoded; the shell makes of it what is to be encoded
    std::string bytes;
  } cases[] = {
      {"SyncClock", "", ""},
      {"SetSystemName", "SystemName=\"a name\"\n", "61206e616d65" + std::string(48, '0')},
      {"ConnectToComplete", "Success=true\nConnectionIDIP=192.168.1.2\nConnectionIDPort=28282\n", "010201a8c07a6e"},
      {"--legacy UpdateMasterClockSource", "MasterClock=10.0.0.1\n", "0100000a"},
      {"UpdateGroupEnable", "Enable0=true\nEnable1=false\nEnable2=true\nEnable3=false\n", "01000100"},
      {"UpdateVideo --revision 0", "UpdateVideoLocation=258\nUpdateCounters=false\n", "0000000000000102"},
      {"GetPositionRunningTimeCorrelation --reply", "Position=-1\nRunningTime=2\n", "ffffffffffffffff0000000000000002"},
  };
  for (const auto& [command, fields, bytes] : cases) {
    SCOPED_TRACE(command);
    std::string assignments = fields;
    std::replace(assignments.begin(), assignments.end(), '\n', ' ');
    const ShellOutcome encoded = RunProgram(std::string("encode ") + command + ' ' + assignments);
    EXPECT_EQ(encoded.output, bytes + '\n');
    const ShellOutcome decoded = RunProgram(std::string("decode ") + command + ' ' + bytes);
    EXPECT_EQ(decoded.output, fields);
    EXPECT_EQ(encoded.status + decoded.status, 0);
  }
}

TEST(CatalogueProgramTest, SaysWhatIsWrong) {
  const struct {
    const char* arguments;
    int status;
    const char* says;
  } cases[] = {
      {"encode Prim", 2, "near ones: Prime\n"},
      {"encode RequestControl HasControl=1", 2, "add --reply"},
      {"encode UpdateMasterClockSource MasterClock=10.0.0.1", 2, "other numbering"},
      {"encode Prime PlaySpeed=2147483648", 2, "out of range, -2147483648 to 2147483647"},
      {"encode ConnectTo ConnectToIPAddress=10.0.0", 2, "no IPv4 address"},
      {"encode RequestLink Link=2", 2, "no flag"},
      {"encode SendState State=eTrel_State_Pley", 2, "near ones: eTrel_State_Play"},
      {"encode SendState State=eTrel_State_Play", 0, "00000006\n"},
      {"encode GetDigitalCutRate --reply DigitalCutRate=25", 0, "note: DigitalCutRate=25 has no name"},
      {"encode ListSystems 'Systems=[{\"Name\":\"x\"}]'", 2, "near ones: Hostname, SystemName\n"},
      {"encode SetSystemName SystemName=123456789012345678901234567890", 0, "arrives as \"Unknown System Name\"\n"},
      {"decode UpdateVideo 0", 2, "a byte has two"},
      {"decode RequestLink 0102", 0, "left over from offset 1: 02\n"},
      {"decode StartPlayback 000000", 1, "StartAtRunningTime (8 bytes) does not fit at offset 0 of 3 bytes\n"},
  };
  for (const auto& [arguments, status, says] : cases) {
    const ShellOutcome outcome = RunProgram(std::string(arguments) + " 2>&1");
    EXPECT_THAT(outcome.output, testing::HasSubstr(says));
    EXPECT_EQ(outcome.status, status) << arguments;
  }
}

TEST(CatalogueProgramTest, ListsTheCatalogue) {
  for (const bool isLegacy : {false, true}) {
    const auto list =
        nlohmann::json::parse(RunProgram(isLegacy ? "commands --legacy --json" : "commands --json").output);
    EXPECT_EQ(list.size(), 76U);
    EXPECT_THAT(list, testing::Contains(nlohmann::json::parse(
                          std::string(isLegacy ? R"({"id": 21,)" : R"({"id": 28,)") + R"("current": 28, "legacy": 21,
                  "name": "GetStartDelay", "class": "Trel_Cmd_GetStartDelay", "synchronous": true, "logged": true,
                  "revision": 0, "command": [],
                  "reply": [{"name": "StartDelay", "kind": "u32", "width": 4, "offset": 0, "since": 0}]})")));
  }
}

TEST(CatalogueProgramTest, PageIsThatOfTheCatalogue) {
  std::ifstream page(TREL_COMMANDS_PAGE);
  EXPECT_EQ(RunProgram("commands --markdown").output, std::string(std::istreambuf_iterator<char>(page), {}))
      << "build the target protocol-page";
}

} // namespace
