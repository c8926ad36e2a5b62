#pragma once

#include "tcpe/protocol/TCPE_Bytes.h"
#include "tcpe/protocol/TCPE_Frame.h"
#include "tcpe/protocol/TCPE_Hello.h"
#include "tcpe/protocol/TCPE_Limits.h"
#include "tcpe/protocol/TCPE_Numbering.h"
#include "tests/support/TestSystem.h"

#include <cstddef>
#include <stdexcept>
#include <utility>
#include <vector>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

using Bytes = std::vector<std::byte>;

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

/// A sealed frame; of the current numbering unless the header says otherwise.
inline Bytes RawFrame(TCPE_FrameHeader header, const Bytes& payload = {}) {
  header.majorVersion = header.majorVersion != 0 ? header.majorVersion : std::uint8_t{4};
  Bytes frame(TCPE_FrameHeader::kSize);
  header.Write(frame.data());
  frame = frame + payload;
  TCPE_SealFrame(frame);
  return frame;
}
inline Bytes RawTime(std::uint32_t time) {
  Bytes payload(sizeof(std::int64_t));
  TCPE_ByteWriter(payload.data() + sizeof time).U32(time);
  return RawFrame({.type = eTrel_Cmd_TestRunningTime}, payload);
}

/// A peer without an engine: a socket, and whatever the test writes to it. Throws when it cannot do as told.
class RawPeer {
public:
  /// Opens a connection from an address of its own.
  RawPeer(std::uint32_t from, std::uint32_t to) : mSocket(Open(from)) {
    const sockaddr_in target = Endpoint(to, TestPort());
    Check(connect(mSocket, reinterpret_cast<const sockaddr*>(&target), sizeof target) == 0);
  }
  /// The next one who connects to an address, to which the socket of Listen is bound.
  static RawPeer Accepted(int listening) {
    pollfd descriptor{listening, POLLIN, 0};
    Check(poll(&descriptor, 1, kPatience) == 1);
    return RawPeer(accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
  }
  static int Listen(std::uint32_t address) {
    const int descriptor = Open(address, TestPort());
    Check(listen(descriptor, 1) == 0);
    return descriptor;
  }
  static RawPeer Admitted(std::uint32_t from, std::uint32_t to) {
    RawPeer peer(from, to);
    Bytes hello(TCPE_Hello::kSize);
    TCPE_Hello{.majorVersion = 4, .instance = 1}.Write(hello.data());
    peer.Send(hello + RawFrame({.flags = kTCPE_Flag_ReplyWanted, .type = eTrel_Cmd_Connect}, Bytes(294)));
    Check(peer.Read().flags == kTCPE_Flag_Reply);
    return peer;
  }
  RawPeer(RawPeer&& other) noexcept : mSocket(std::exchange(other.mSocket, -1)), mSawHello(other.mSawHello) {}
  RawPeer& operator=(RawPeer&&) = delete;
  ~RawPeer() { Close(); }

  /// What the other end has closed takes no more, and that is no fault.
  void Send(const Bytes& bytes) const { std::ignore = send(mSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
  /// The next frame that is no heartbeat.
  TCPE_FrameHeader Read() {
    TCPE_FrameHeader header;
    while (header.type == kTCPE_HeartbeatType) {
      if (!std::exchange(mSawHello, true)) {
        ReadBytes(TCPE_Hello::kSize);
      }
      header = TCPE_FrameHeader::Read(ReadBytes(TCPE_FrameHeader::kSize).data());
      ReadBytes(header.dataLength);
    }
    return header;
  }
  /// Whether the other end closes before it has been silent for that long; heartbeats come each second.
  bool IsClosed(int milliseconds = kPatience) const {
    Bytes bytes(4096);
    while (HasInput(milliseconds)) {
      if (recv(mSocket, bytes.data(), bytes.size(), 0) <= 0) {
        return true;
      }
    }
    return false;
  }
  void Close() { close(std::exchange(mSocket, -1)); }
  void Reset() {
    const linger atOnce{1, 0};
    setsockopt(mSocket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    Close();
  }

private:
  static constexpr int kPatience = 10'000; // ms

  static void Check(bool isGood) {
    if (!isGood) {
      throw std::runtime_error("the raw peer failed");
    }
  }
  static sockaddr_in Endpoint(std::uint32_t address, std::uint16_t port) {
    return {.sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(address)}, .sin_zero = {}};
  }
  explicit RawPeer(int descriptor) : mSocket(descriptor) { Check(descriptor >= 0); }
  static int Open(std::uint32_t address, std::uint16_t port = 0) {
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int yes = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    const sockaddr_in local = Endpoint(address, port);
    Check(bind(descriptor, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0);
    return descriptor;
  }
  bool HasInput(int milliseconds) const {
    pollfd descriptor{mSocket, POLLIN, 0};
    return poll(&descriptor, 1, milliseconds) == 1;
  }
  Bytes ReadBytes(std::size_t size) const {
    Bytes bytes(size);
    for (std::size_t count = 0; count < size;) {
      const ssize_t more = HasInput(kPatience) ? recv(mSocket, bytes.data() + count, size - count, 0) : 0;
      Check(more > 0);
      count += static_cast<std::size_t>(more);
    }
    return bytes;
  }

  int mSocket = -1;
  bool mSawHello = false;
};
