#include <trel/Trel_Cmd_Transport.h>

#include "tests/support/NumberingTest.h"
#include "tests/support/RawPeer.h"

#include <gmock/gmock.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>

namespace {

std::uint32_t Read(const Bytes& bytes, std::size_t at, std::size_t count) {
  std::uint32_t value = 0;
  for (std::size_t index = at; index < at + count; ++index) {
    value = value << 8U | std::to_integer<std::uint32_t>(bytes.at(index));
  }
  return value;
}

/// A capture read back, down to the frames of the link.
struct ReadCapture {
  struct Direction {
    std::uint32_t next = 0; ///< sequence number
    bool hasBegun = false;
    bool hasEnded = false;
    Bytes stream;
  };
  std::map<std::array<std::uint32_t, 3>, Direction> directions; ///< by addresses and both ports
  std::vector<TCPE_FrameHeader> frames;
  std::vector<Bytes> payloads;
  std::uint64_t lastTime = 0; ///< us

  explicit ReadCapture(const std::string& file) {
    std::ifstream input(file, std::ios::binary);
    const std::string text(std::istreambuf_iterator<char>(input), {});
    const auto* begin = reinterpret_cast<const std::byte*>(text.data());
    const Bytes bytes(begin, begin + text.size());
    EXPECT_EQ(Read(bytes, 0, 4), 0xa1b2c3d4U);
    EXPECT_EQ(Read(bytes, 20, 4), 1U); // Ethernet
    constexpr std::size_t kRecordHeader = 16;
    for (std::size_t at = 24; at < bytes.size();) {
      const std::uint64_t time = Read(bytes, at, 4) * std::uint64_t{1'000'000} + Read(bytes, at + 4, 4);
      EXPECT_GE(time, lastTime);
      lastTime = time;
      const std::size_t size = Read(bytes, at + 8, 4);
      at += kRecordHeader;
      Bytes packet(size);
      for (std::byte& byte : packet) {
        byte = bytes.at(at++); // throws when the last packet is cut off
      }
      AddPacket(packet);
    }
    for (const auto& [ends, direction] : directions) {
      AddFrames(direction.stream);
    }
  }

private:
  void AddPacket(const Bytes& packet) {
    const Bytes internet(packet.begin() + 14, packet.begin() + 34);
    const Bytes segment(packet.begin() + 34, packet.end());
    ASSERT_EQ(Read(internet, 9, 1), 6U); // TCP
    const std::uint32_t ports = Read(segment, 0, 4);
    const std::uint32_t from = Read(internet, 12, 4);
    const std::uint32_t to = Read(internet, 16, 4);
    Direction& own = directions[{from, to, ports}];
    const Direction& other = directions[{to, from, ports << 16U | ports >> 16U}];
    const std::uint32_t flags = Read(segment, 13, 1);
    const bool isFirst = (flags & 2U) != 0;
    const bool isLast = (flags & 1U) != 0;
    EXPECT_EQ(own.hasBegun, !isFirst);
    own.next = isFirst ? Read(segment, 4, 4) : own.next;
    EXPECT_EQ(Read(segment, 4, 4), own.next);
    if ((flags & 16U) != 0) {
      EXPECT_EQ(Read(segment, 8, 4), other.next);
    }
    own.stream.insert(own.stream.end(), segment.begin() + 20, segment.end());
    own.next += static_cast<std::uint32_t>(segment.size() - 20) + (isFirst || isLast ? 1 : 0);
    own.hasBegun = true;
    own.hasEnded = own.hasEnded || isLast;
  }
  void AddFrames(const Bytes& stream) {
    ASSERT_GE(stream.size(), TCPE_Hello::kSize);
    EXPECT_TRUE(TCPE_Hello::Read(std::span(stream).first<TCPE_Hello::kSize>()));
    std::span<const std::byte> rest = std::span(stream).subspan(TCPE_Hello::kSize);
    while (!rest.empty()) {
      ASSERT_GE(rest.size(), TCPE_FrameHeader::kSize);
      const TCPE_FrameHeader header = TCPE_FrameHeader::Read(rest.data());
      const std::size_t size = TCPE_FrameHeader::kSize + header.dataLength;
      ASSERT_GE(rest.size(), size);
      EXPECT_EQ(TCPE_FrameChecksum(rest.first(size)), header.checksum);
      frames.push_back(header);
      payloads.emplace_back(rest.begin() + TCPE_FrameHeader::kSize, rest.begin() + static_cast<std::ptrdiff_t>(size));
      rest = rest.subspan(size);
    }
  }
};

/// What a program writes.
std::string OutputOf(const std::string& command) {
  FILE* const pipe = popen(command.c_str(), "r");
  std::string output;
  std::array<char, 4096> bytes = {};
  for (std::size_t count = 0; (count = fread(bytes.data(), 1, bytes.size(), pipe)) > 0;) {
    output.append(bytes.data(), count);
  }
  EXPECT_EQ(pclose(pipe), 0) << command;
  return output;
}

/// The values of a field in the packets of a capture that a filter lets through, as the dissector tells them.
std::multiset<std::string> Fields(const std::string& file, const std::string& filter, const std::string& field,
                                  const std::string& options = "") {
  std::multiset<std::string> values;
  const std::string text =
      OutputOf("HOME=/nonexistent tshark -2 -X lua_script:" TREL_DISSECTOR " -r " + file + ' ' + options +
               " -T fields -E occurrence=a -E aggregator=, -e " + field + " -Y '" + filter + "' 2>/dev/null");
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
  const std::string file = TREL_DISSECTOR ".demo.pcap";
  const auto wallTime = [] {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
  };
  const std::int64_t begin = wallTime();
  std::jthread demo([&] {
    OutputOf(TREL_PROGRAM " demo --satellites 2 --rounds 1 --pcap " + file + (IsCurrent() ? "" : " --legacy"));
  });
  // What is in the file while the program runs is what would be left of it were it killed.
  std::error_code none;
  EXPECT_TRUE(Eventually([&] { return std::filesystem::file_size(file, none) > 3000 && !none; }));
  EXPECT_FALSE(ReadCapture(file).frames.empty());
  demo.join();

  const ReadCapture capture(file);
  EXPECT_GT(static_cast<std::int64_t>(capture.lastTime), begin);
  EXPECT_LT(static_cast<std::int64_t>(capture.lastTime), wallTime());
  EXPECT_EQ(capture.directions.size(), 4U);
  for (const auto& [ends, direction] : capture.directions) {
    EXPECT_TRUE(direction.hasBegun && direction.hasEnded);
  }
  std::size_t replies = 0;
  std::multiset<std::uint32_t> startTimes;
  for (std::size_t index = 0; index < capture.frames.size(); ++index) {
    replies += capture.frames[index].Has(kTCPE_Flag_Reply) ? 1 : 0;
    if (Trel_Command::GetCompatibleID(capture.frames[index].type) == Trel_Cmd_StartPlayback::GetCommandID()) {
      startTimes.insert(Read(capture.payloads[index], 4, 4));
    }
  }
  EXPECT_EQ(startTimes.size(), 2U);
  EXPECT_GT(replies, 100U);

  if (!HasTshark()) {
    GTEST_SKIP() << kNoTshark;
  }
  const auto fields = [&file](const char* filter, const char* field) {
    return Fields(file, filter, field, "-o ip.check_checksum:TRUE -o tcp.check_checksum:TRUE");
  };
  using testing::IsEmpty;
  EXPECT_THAT(fields("tcp.len > 0 && !trel_link", "frame.number"), IsEmpty());
  EXPECT_THAT(fields("_ws.expert && (trel_link || _ws.malformed || tcp.analysis.flags)", "frame.number"), IsEmpty());
  EXPECT_THAT(fields("ip.checksum.status != 1 || tcp.checksum.status != 1", "frame.number"), IsEmpty());
  std::multiset<std::string> expected;
  for (const std::uint32_t time : startTimes) {
    expected.insert(std::to_string(time));
  }
  EXPECT_EQ(fields("trel.StartPlayback.StartAtRunningTime > 0", "trel.StartPlayback.StartAtRunningTime"), expected);
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
    OutputOf(TREL_PROGRAM " demo --satellites 2 --rounds 1 --port " + port);
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
