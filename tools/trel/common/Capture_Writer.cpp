#include "tools/trel/common/Capture_Writer.h"

#include <trel/Sys_Clock.h>
#include <trel/Trel_CommManager.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <initializer_list>
#include <stdexcept>

namespace {

constexpr std::uint8_t kTcp = 6;
constexpr std::uint8_t kUdp = 17;
constexpr std::size_t kMaxSegment = 1460; // what fits on Ethernet
constexpr std::size_t kTcpHeaderSize = 20;
constexpr std::size_t kUdpHeaderSize = 8;
constexpr std::size_t kIPHeaderSize = 20;
constexpr std::chrono::milliseconds kReaderPatience{100}; // with who reads a pipe: the engine waits for it

enum Flag : std::uint8_t { kFin = 1, kSyn = 2, kPush = 8, kAck = 16 };

std::int64_t WallTime() {
  return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

/// Appends numbers, most significant byte first.
class Appender {
public:
  explicit Appender(std::vector<std::byte>& bytes) : mBytes(bytes) {}
  Appender& U8(std::uint32_t value) {
    mBytes.push_back(static_cast<std::byte>(value));
    return *this;
  }
  Appender& U16(std::uint32_t value) { return U8(value >> 8U).U8(value); }
  Appender& U32(std::uint32_t value) { return U16(value >> 16U).U16(value); }
  Appender& All(std::span<const std::byte> bytes) {
    mBytes.insert(mBytes.end(), bytes.begin(), bytes.end());
    return *this;
  }

private:
  std::vector<std::byte>& mBytes;
};

/// Sum of 16-bit words for the Internet checksum; only the last range may have an odd size.
std::uint64_t SumOf(std::initializer_list<std::span<const std::byte>> ranges) {
  std::uint64_t sum = 0;
  for (const auto& range : ranges) {
    for (std::size_t index = 0; index < range.size(); ++index) {
      sum += std::to_integer<std::uint64_t>(range[index]) << (index % 2 == 0 ? 8U : 0U);
    }
  }
  return sum;
}

std::uint16_t ChecksumOf(std::uint64_t sum) {
  while (sum > 0xffff) {
    sum = (sum >> 16U) + (sum & 0xffffU);
  }
  return static_cast<std::uint16_t>(~sum);
}

void Put16(std::byte* place, std::uint16_t value) {
  place[0] = static_cast<std::byte>(value >> 8U);
  place[1] = static_cast<std::byte>(value & 0xffU);
}

} // namespace

Capture_Writer::Capture_Writer(const std::string& file)
    : mFile(file, {}, kReaderPatience), mWallTimeOfRawZero(WallTime() - Sys_Clock::RawMicroseconds()) {
  constexpr std::uint32_t kMicrosecondFormat = 0xa1b2c3d4;
  constexpr std::uint32_t kLongestPacket = 65535;
  constexpr std::uint32_t kEthernet = 1;
  Appender(mPackets).U32(kMicrosecondFormat).U16(2).U16(4).U32(0).U32(0).U32(kLongestPacket).U32(kEthernet);
  Flush();
  if (!mFile) {
    throw std::runtime_error(Problem());
  }
}

Capture_Writer::~Capture_Writer() {
  if (mIsTapping) {
    Trel_CommManager::SetByteTap(nullptr);
  }
  while (!mConnections.empty()) {
    Close(mConnections.begin());
  }
  Flush();
}

void Capture_Writer::CaptureEngine() {
  mIsTapping = true;
  Trel_CommManager::SetByteTap(
      [](const TCPE_TappedBytes& tapped, void* writer) {
        try {
          static_cast<Capture_Writer*>(writer)->Write(tapped);
        } catch (...) { // NOLINT(bugprone-empty-catch): without memory there is no capture, but there is a link
        }
      },
      this);
}

void Capture_Writer::Write(const TCPE_TappedBytes& tapped) {
  using Event = TCPE_TappedBytes::Event;
  if (!mFile) {
    return;
  }
  mTime = mWallTimeOfRawZero + tapped.rawTime;
  const End local{tapped.localAddress, tapped.localPort};
  const End peer{tapped.peerAddress, tapped.peerPort};
  const bool isFromPeer = tapped.event == Event::received;
  if (tapped.transport == TCPE_TappedBytes::Transport::udp) {
    AddDatagram(isFromPeer ? peer : local, isFromPeer ? local : peer, tapped.bytes);
  } else {
    const auto connection = Open(local, peer, tapped.isOpenedByPeer);
    for (Bytes rest = tapped.bytes; !rest.empty(); rest = rest.subspan(std::min(kMaxSegment, rest.size()))) {
      AddSegment(*connection, isFromPeer, kPush | kAck, rest.first(std::min(kMaxSegment, rest.size())));
    }
    if (tapped.event == Event::closed) {
      Close(connection);
    }
  }
  Flush();
}

Capture_Writer::Connections::iterator Capture_Writer::Open(const End& local, const End& peer, bool isOpenedByPeer) {
  if (const auto known = mConnections.find({local, peer}); known != mConnections.end()) {
    return known;
  }
  // Far from those of the connection before, which may have had the same ports.
  constexpr std::uint32_t kDistance = 0x10000000;
  const std::uint32_t first = ++mConnectionsSoFar * kDistance;
  const auto connection = mConnections.emplace(std::tuple(local, peer), Connection{first, first + kDistance / 2}).first;
  AddSegment(*connection, isOpenedByPeer, kSyn, {});
  AddSegment(*connection, !isOpenedByPeer, kSyn | kAck, {});
  AddSegment(*connection, isOpenedByPeer, kAck, {});
  return connection;
}

void Capture_Writer::Close(Connections::iterator connection) {
  AddSegment(*connection, false, kFin | kAck, {});
  AddSegment(*connection, true, kFin | kAck, {});
  AddSegment(*connection, false, kAck, {});
  mConnections.erase(connection);
}

void Capture_Writer::AddSegment(Connections::value_type& connection, bool isFromPeer, std::uint8_t flags, Bytes data) {
  const auto& [local, peer] = connection.first;
  const End& from = isFromPeer ? peer : local;
  const End& to = isFromPeer ? local : peer;
  std::uint32_t& own = isFromPeer ? connection.second.peer : connection.second.local;
  const std::uint32_t other = isFromPeer ? connection.second.local : connection.second.peer;
  constexpr std::uint32_t kHeaderWords = kTcpHeaderSize / 4;
  std::vector<std::byte> header;
  Appender(header)
      .U16(from.port)
      .U16(to.port)
      .U32(own)
      .U32((flags & kAck) != 0 ? other : 0)
      .U8(kHeaderWords << 4U)
      .U8(flags)
      .U16(0xffff)
      .U16(0) // checksum
      .U16(0);
  constexpr std::size_t kChecksum = 16;
  AddPacket(kTcp, from, to, header, data, kChecksum);
  own += static_cast<std::uint32_t>(data.size()) + ((flags & (kSyn | kFin)) != 0 ? 1 : 0);
}

void Capture_Writer::AddDatagram(const End& from, const End& to, Bytes data) {
  std::vector<std::byte> header;
  Appender(header)
      .U16(from.port)
      .U16(to.port)
      .U16(static_cast<std::uint32_t>(kUdpHeaderSize + data.size()))
      .U16(0); // checksum
  constexpr std::size_t kChecksum = 6;
  AddPacket(kUdp, from, to, header, data, kChecksum);
}

void Capture_Writer::AddPacket(std::uint8_t protocol, const End& from, const End& to, std::span<std::byte> header,
                               Bytes data, std::size_t checksumAt) {
  constexpr std::int64_t kSecond = 1'000'000;
  constexpr std::size_t kEthernetHeaderSize = 14;
  constexpr std::uint32_t kLocalMac = 0x0200; // ours to give; the address follows
  std::vector<std::byte> pseudo;
  Appender(pseudo)
      .U32(from.address)
      .U32(to.address)
      .U16(protocol)
      .U16(static_cast<std::uint32_t>(header.size() + data.size()));
  Put16(header.data() + checksumAt, ChecksumOf(SumOf({pseudo, header, data})));

  std::vector<std::byte> internet;
  Appender(internet)
      .U16(0x4500)
      .U16(static_cast<std::uint32_t>(kIPHeaderSize + header.size() + data.size()))
      .U16(++mLastIdentification)
      .U16(0x4000) // not to be fragmented
      .U8(64)
      .U8(protocol)
      .U16(0) // checksum
      .U32(from.address)
      .U32(to.address);
  constexpr std::size_t kIPChecksum = 10;
  Put16(internet.data() + kIPChecksum, ChecksumOf(SumOf({internet})));

  const auto size = static_cast<std::uint32_t>(kEthernetHeaderSize + internet.size() + header.size() + data.size());
  Appender(mPackets)
      .U32(static_cast<std::uint32_t>(mTime / kSecond))
      .U32(static_cast<std::uint32_t>(mTime % kSecond))
      .U32(size)
      .U32(size)
      .U16(kLocalMac)
      .U32(to.address)
      .U16(kLocalMac)
      .U32(from.address)
      .U16(0x0800) // IPv4
      .All(internet)
      .All(header)
      .All(data);
}

void Capture_Writer::Flush() {
  constexpr std::size_t kLargestFile = std::size_t{1} << 30U;
  mSize += mPackets.size();
  if (mSize > kLargestFile) {
    mFile.Fail("it has reached 1 GiB");
  }
  mFile.write(reinterpret_cast<const char*>(mPackets.data()), static_cast<std::streamsize>(mPackets.size()));
  mFile.flush();
  mPackets.clear();
}
