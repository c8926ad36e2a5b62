#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

/// A capture file (pcap, IPv4 packets, one each millisecond) of what a test says has passed on a network.
class Capture {
public:
  using Bytes = std::vector<std::byte>;
  struct End {
    std::uint32_t address;
    std::uint16_t port;
    auto operator<=>(const End&) const = default;
  };

  explicit Capture(const std::string& file) : mFile(file, std::ios::binary) {
    constexpr std::uint32_t kRawIPv4 = 228;
    Words({0xa1b2c3d4, 0x00020004, 0, 0, 0xffff, kRawIPv4});
  }

  /// The next segment of this direction of a connection.
  void AddTcp(const End& from, const End& to, const Bytes& data) {
    auto& sent = mSent[{from, to}];
    const std::uint32_t received = mSent[{to, from}];
    AddIP(6, from, to, 20, data);
    Words({Ports(from, to), 1 + sent, 1 + received, 0x50180000 | 0xffff, 0});
    Write(data);
    sent += static_cast<std::uint32_t>(data.size());
  }
  void AddUdp(const End& from, const End& to, const Bytes& data) {
    AddIP(17, from, to, 8, data);
    Words({Ports(from, to), static_cast<std::uint32_t>(8 + data.size()) << 16U});
    Write(data);
  }
  void Close() { mFile.close(); }

private:
  void AddIP(std::uint32_t protocol, const End& from, const End& to, std::size_t headerSize, const Bytes& data) {
    const auto size = static_cast<std::uint32_t>(20 + headerSize + data.size());
    const std::uint32_t time = ++mPackets * 1000;
    Words({0, time, size, size, 0x45000000 | size, 0, 0x40000000 | protocol << 16U, from.address, to.address});
  }
  static std::uint32_t Ports(const End& from, const End& to) {
    return static_cast<std::uint32_t>(from.port) << 16U | to.port;
  }
  /// Big-endian, the file's own numbers too.
  void Words(std::initializer_list<std::uint32_t> words) {
    for (const std::uint32_t word : words) {
      for (const unsigned shift : {24U, 16U, 8U, 0U}) {
        mFile.put(static_cast<char>(word >> shift));
      }
    }
  }
  void Write(const Bytes& data) {
    mFile.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
  }

  std::ofstream mFile;
  std::uint32_t mPackets = 0;
  std::map<std::pair<End, End>, std::uint32_t> mSent;
};
