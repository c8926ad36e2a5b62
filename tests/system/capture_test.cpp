#include "tests/support/Shell.h"
#include "tests/support/TestSystem.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

TEST(CaptureTest, OfTheDemonstrationHoldsEveryByteAndIsDissected) {
  if (std::system("tshark --version >/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "there is no tshark; scripts/bootstrap installs it";
  }
  const std::string file = TREL_DISSECTOR ".demo.pcap";
  const auto begin = std::chrono::system_clock::now().time_since_epoch() / std::chrono::seconds(1);
  std::jthread demo(
      [&] { EXPECT_EQ(RunShell(TREL_PROGRAM " demo --satellites 2 --rounds 1 --pcap " + file).status, 0); });
  // What is in the file while the program runs is what would be left of it were it killed.
  std::error_code none;
  EXPECT_TRUE(Eventually([&] { return std::filesystem::file_size(file, none) > 3000 && !none; }));
  demo.join();

  // The values of a field in the packets that a filter lets through.
  const auto values = [&file](const std::string& filter, const std::string& field) {
    const std::string text =
        RunShell("HOME=/nonexistent tshark -2 -X lua_script:" TREL_DISSECTOR " -r " + file +
                 " -o ip.check_checksum:TRUE -o tcp.check_checksum:TRUE -T fields -E occurrence=a -e " + field +
                 " -Y '" + filter + "' 2>/dev/null | tr , '\\n'")
            .output;
    std::vector<std::string> found;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
      found.push_back(word);
    }
    return found;
  };
  const auto packets = [&values](const std::string& filter) { return values(filter, "frame.number").size(); };
  EXPECT_EQ(packets("frame.time_epoch >= " + std::to_string(begin) +
                    " && ip.checksum.status == 1 && tcp.checksum.status == 1 && (tcp.len == 0 || trel_link) && "
                    "!(_ws.expert && (trel_link || _ws.malformed || tcp.analysis.flags))"),
            packets("tcp"));
  EXPECT_EQ(packets("tcp.flags.syn == 1 || tcp.flags.fin == 1"), 8U); // each direction of two connections
  EXPECT_EQ(values("trel.StartPlayback.StartAtRunningTime > 0", "trel.StartPlayback.StartAtRunningTime").size(), 2U);
  const std::vector<std::string> flags = values("trel_link", "trel.header.flags.reply");
  const auto replies = std::count_if(flags.begin(), flags.end(), // as the version of tshark writes it
                                     [](const std::string& flag) { return flag == "1" || flag == "True"; });
  EXPECT_GT(replies, 100);
  EXPECT_EQ(values("trel.response_time < 10", "trel.response_time").size(), static_cast<std::size_t>(replies));
  std::filesystem::remove(file);
}

} // namespace
