#pragma once

#include "tools/trel/common/Output_File.h"

#include <trel/TCPE_TappedBytes.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <tuple>
#include <vector>

/// Writes what passes between the engine and its peers to a capture file (classic pcap) for a network analyser.
///
/// The engine knows bytes and not packets, so the Ethernet, IPv4, TCP and UDP headers are made up: a handshake at the
/// begin of each connection, sequence numbers that fit, a farewell at its end. Times are wall-clock times of the moment
/// at which the engine sent or received.
///
/// Each event is in the file before the engine goes on, so that a killed program leaves a readable file. A file that
/// cannot be written any more, or has reached 1 GiB, ends the capture and nothing else; so does a pipe that nobody
/// reads.
class Capture_Writer {
public:
  /// @throws std::runtime_error when the file cannot be written
  explicit Capture_Writer(const std::string& file);
  /// Ends the tap, and the connections that are still open.
  ~Capture_Writer();
  Capture_Writer(const Capture_Writer&) = delete;
  Capture_Writer& operator=(const Capture_Writer&) = delete;

  /// Taps the engine from now on. Terminated first, the engine's farewells are in the file too.
  void CaptureEngine();
  /// One thread at a time.
  void Write(const TCPE_TappedBytes& tapped);
  /// Why not all has been written so far, in words; empty when it has.
  std::string Problem() const { return mFile.Problem(); }

private:
  struct End {
    std::uint32_t address;
    std::uint16_t port;
    bool operator<(const End& other) const { return std::tie(address, port) < std::tie(other.address, other.port); }
  };
  /// A TCP connection: what the next byte of each side is numbered.
  struct Connection {
    std::uint32_t local;
    std::uint32_t peer;
  };
  using Connections = std::map<std::tuple<End, End>, Connection>; ///< by local and peer end
  using Bytes = std::span<const std::byte>;

  Connections::iterator Open(const End& local, const End& peer, bool isOpenedByPeer);
  void Close(Connections::iterator connection);
  void AddSegment(Connections::value_type& connection, bool isFromPeer, std::uint8_t flags, Bytes data);
  void AddDatagram(const End& from, const End& to, Bytes data);
  /// `checksumAt`: where in the header of the transport its checksum belongs.
  void AddPacket(std::uint8_t protocol, const End& from, const End& to, std::span<std::byte> header, Bytes data,
                 std::size_t checksumAt);
  void Flush();

  Output_File mFile;
  const std::int64_t mWallTimeOfRawZero; // us
  std::int64_t mTime = 0;                // wall time of what is being written, us
  std::vector<std::byte> mPackets;       // to be written at once
  std::size_t mSize = 0;                 // of the file
  Connections mConnections;
  bool mIsTapping = false;
  std::uint32_t mConnectionsSoFar = 0;
  std::uint16_t mLastIdentification = 0;
};
