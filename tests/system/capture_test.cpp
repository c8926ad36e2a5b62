#include "tests/support/NumberingTest.h"
#include "tests/support/Shell.h"
#include "tests/support/TestSystem.h"

#include <gmock/gmock.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <set>
#include <string>
#include <thread>

#include <unistd.h>

namespace {

/// The values of a field in the packets of a capture that a filter lets through, as the dissector tells them.
std::multiset<std::string> Fields(const std::string& file, const std::string& filter, const std::string& field,
                                  const std::string& options = "") {
  std::multiset<std::string> values;
  const auto [status, text] =
      RunShell("HOME=/nonexistent tshark -2 -X lua_script:" TREL_DISSECTOR " -r " + file + ' ' + options +
               " -T fields -E occurrence=a -E aggregator=, -e " + field + " -Y '" + filter + "' 2>/dev/null");
  EXPECT_EQ(status, 0) << filter;
  std::string value;
  for (const char letter : text) {
    if (letter != '\n' && letter != ',') {
      value += letter;
    } else {
      values.insert(std::exchange(value, {}));
    }
  }
  return values;
}

/// The traffic of a TCP port on the loopback adaptor, taken by Wireshark's own program while the object lives.
class LiveCapture {
public:
  LiveCapture(const std::string& port, const std::string& file) : mId(fork()) {
    if (mId == 0) {
      std::ignore = std::freopen("/dev/null", "w", stderr);
      execlp("dumpcap", "dumpcap", "-q", "-i", "lo", "-f", ("tcp port " + port).c_str(), "-w", file.c_str(), nullptr);
      _exit(127);
    }
    std::error_code none;
    EXPECT_TRUE(Eventually([&] {
      mHasEnded = waitpid(mId, nullptr, WNOHANG) != 0;
      return mHasEnded || (std::filesystem::file_size(file, none) > 0 && !none);
    }));
  }
  ~LiveCapture() {
    if (!mHasEnded) {
      kill(mId, SIGINT); // it writes what it has
      waitpid(mId, nullptr, 0);
    }
  }
  LiveCapture(const LiveCapture&) = delete;
  LiveCapture& operator=(const LiveCapture&) = delete;

  bool HasEnded() const { return mHasEnded; }

private:
  const pid_t mId;
  bool mHasEnded = false;
};

constexpr const char* kNoTshark = "there is no tshark; scripts/bootstrap installs it";
bool HasTshark() { return std::system("tshark --version >/dev/null 2>&1") == 0; }

using CaptureTest = NumberingTest;
INSTANTIATE_NUMBERING_TESTS(CaptureTest);

TEST_P(CaptureTest, OfTheDemonstrationHoldsEveryByteAndIsDissected) {
  if (!HasTshark()) {
    GTEST_SKIP() << kNoTshark;
  }
  const std::string file = TREL_DISSECTOR ".demo.pcap";
  const auto now = [] {
    return std::to_string(std::chrono::system_clock::now().time_since_epoch() / std::chrono::seconds(1));
  };
  const std::string begin = now();
  std::jthread demo([&] {
    const std::string command = TREL_PROGRAM " demo --satellites 2 --rounds 1 --pcap " + file;
    EXPECT_EQ(RunShell(command + (IsCurrent() ? "" : " --legacy")).status, 0);
  });
  // What is in the file while the program runs is what would be left of it were it killed.
  std::error_code none;
  EXPECT_TRUE(Eventually([&] { return std::filesystem::file_size(file, none) > 3000 && !none; }));
  demo.join();

  const auto fields = [&file](const std::string& filter, const char* field = "frame.number") {
    return Fields(file, filter, field, "-o ip.check_checksum:TRUE -o tcp.check_checksum:TRUE");
  };
  using testing::IsEmpty;
  EXPECT_THAT(fields("frame.time_epoch < " + begin + " || frame.time_epoch > " + now() + ".999999"), IsEmpty());
  EXPECT_EQ(fields("tcp.flags.syn == 1").size(), 4U); // each direction of two connections begins and ends
  EXPECT_EQ(fields("tcp.flags.fin == 1").size(), 4U);
  EXPECT_THAT(fields("tcp.len > 0 && !trel_link"), IsEmpty());
  EXPECT_THAT(fields("_ws.expert && (trel_link || _ws.malformed || tcp.analysis.flags)"), IsEmpty());
  EXPECT_THAT(fields("ip.checksum.status != 1 || tcp.checksum.status != 1"), IsEmpty());
  EXPECT_EQ(fields("trel.StartPlayback.StartAtRunningTime > 0", "trel.StartPlayback.StartAtRunningTime").size(), 2U);
  const auto flags = fields("trel_link", "trel.header.flags.reply");
  const std::size_t replies = flags.count("1") + flags.count("True"); // as the version of tshark writes it
  EXPECT_GT(replies, 100U);
  EXPECT_EQ(fields("trel.response_time < 10", "trel.response_time").size(), replies);
  std::filesystem::remove(file);
}

TEST(LiveCaptureTest, OfTheDemonstrationIsDissected) {
  if (!HasTshark()) {
    GTEST_SKIP() << kNoTshark;
  }
  const std::string file = TREL_DISSECTOR ".live.pcapng";
  const std::string port = std::to_string(TestPort());
  std::filesystem::remove(file);
  {
    const LiveCapture capture(port, file);
    if (capture.HasEnded()) {
      GTEST_SKIP() << "this machine lets nobody capture its loopback traffic";
    }
    EXPECT_EQ(RunShell(TREL_PROGRAM " demo --satellites 2 --rounds 1 --port " + port).status, 0);
    // Whoever disconnects says so last; the capture is behind by what is buffered.
    EXPECT_TRUE(Eventually([&] { return Fields(file, "trel.header.type == 12", "frame.number").size() == 2; }));
  }
  using testing::IsEmpty;
  EXPECT_THAT(Fields(file, "tcp.len > 0 && !trel_link", "frame.number"), IsEmpty());
  EXPECT_THAT(Fields(file, "_ws.expert && (trel_link || _ws.malformed)", "frame.number"), IsEmpty());
  EXPECT_EQ(Fields(file, "trel.StartPlayback.StartAtRunningTime > 0", "trel.StartPlayback.StartAtRunningTime").size(),
            2U);
  EXPECT_GT(Fields(file, "trel.response_time < 10", "trel.response_time").size(), 100U);
  std::filesystem::remove(file);
}

} // namespace
