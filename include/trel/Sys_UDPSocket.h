#pragma once

#include <trel/Trel_Export.h>

#include <any>
#include <cstddef>
#include <cstdint>
#include <span>

/// A UDP socket over IPv4 that may also send broadcasts; closed when it is destroyed. Addresses and ports are in host
/// order.
///
/// One thread at a time. Not real-time-safe: system calls. What fails returns false and leaves the socket as it was.
class TREL_EXPORT Sys_UDPSocket {
public:
  enum class Result : std::uint8_t { received, timedOut, failed };

  Sys_UDPSocket() = default;
  ~Sys_UDPSocket();
  Sys_UDPSocket(const Sys_UDPSocket&) = delete;
  Sys_UDPSocket& operator=(const Sys_UDPSocket&) = delete;

  /// Opens the socket; all that follows needs it. False when it is open already or the operating system refuses.
  bool Register();
  bool IsRegistered() const { return mDescriptor >= 0; }

  /// Whether Bind may share its address, or its port, with other sockets that share it too. A free port that Bind
  /// chooses is never shared. False when the socket is bound already.
  bool SetReuseAddress(bool reuse);
  bool SetReusePort(bool reuse);
  /// Address 0 stands for all addresses of this machine, port 0 for any free port. A socket that is not bound gets
  /// address and port with its first Send.
  bool Bind(std::uint32_t address, std::uint16_t port);
  /// The port it is bound to; 0 when it is not.
  std::uint16_t GetPort() const;

  /// Makes room for the addresses of those whose datagrams are received; Receive needs it.
  bool AllocateReplyAddress();
  /// Where the last received datagram came from; 0 before there was one.
  std::uint32_t GetReplyAddress() const { return mReplyAddress; }
  std::uint16_t GetReplyPort() const { return mReplyPort; }

  /// Sends one datagram. Never blocks: false when there is no room for it, too.
  bool Send(std::span<const std::byte> datagram, std::uint32_t address, std::uint16_t port);
  /// Waits for the next datagram, `microseconds` at the most, and tells its size. What does not fit is cut off.
  Result Receive(std::span<std::byte> buffer, std::int64_t microseconds, std::size_t* size);

  /// Whatever the user wants to keep with the socket.
  std::any& Attachment() { return mAttachment; }

private:
  bool SetOption(int option, bool value) const;

  int mDescriptor = -1;
  bool mReusesAddress = false;
  bool mReusesPort = false;
  bool mIsBound = false;
  bool mHasReplyAddress = false;
  std::uint32_t mReplyAddress = 0;
  std::uint16_t mReplyPort = 0;
  std::any mAttachment;
};
