#include "foundation/Sys_NativeSocket.h"

#include <trel/Sys_Clock.h>
#include <trel/Sys_UDPSocket.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::int64_t kMicrosecondsPerSecond = 1'000'000;

sockaddr_in MakeAddress(std::uint32_t address, std::uint16_t port) {
  sockaddr_in result = {};
  result.sin_family = AF_INET;
  result.sin_addr.s_addr = htonl(address);
  result.sin_port = htons(port);
  return result;
}

/// Waits until the socket can be read. What poll answers: 0 after the time, negative when it failed.
int WaitReadable(int descriptor, std::int64_t microseconds) {
  pollfd entry = {.fd = descriptor, .events = POLLIN, .revents = 0};
#if defined(__linux__)
  const timespec wait = {.tv_sec = microseconds / kMicrosecondsPerSecond,
                         .tv_nsec = microseconds % kMicrosecondsPerSecond * 1000};
  return ppoll(&entry, 1, &wait, nullptr);
#else
  constexpr std::int64_t kLongest = 60'000; // ms; the caller comes again
  return poll(&entry, 1, static_cast<int>(std::min(kLongest, (microseconds + 999) / 1000)));
#endif
}

} // namespace

Sys_UDPSocket::~Sys_UDPSocket() {
  if (IsRegistered()) {
    close(mDescriptor);
  }
}

bool Sys_UDPSocket::Register() {
  if (IsRegistered()) {
    return false;
  }
  mDescriptor = Sys_NativeSocket::Open(SOCK_DGRAM);
  if (!IsRegistered()) {
    return false;
  }
  if (fcntl(mDescriptor, F_SETFL, O_NONBLOCK) != 0 || !SetOption(SO_BROADCAST, true)) {
    close(mDescriptor);
    mDescriptor = -1;
  }
  return IsRegistered();
}

bool Sys_UDPSocket::SetReuseAddress(bool reuse) {
  const bool isPossible = IsRegistered() && !mIsBound;
  mReusesAddress = isPossible ? reuse : mReusesAddress;
  return isPossible;
}

bool Sys_UDPSocket::SetReusePort(bool reuse) {
  const bool isPossible = IsRegistered() && !mIsBound;
  mReusesPort = isPossible ? reuse : mReusesPort;
  return isPossible;
}

bool Sys_UDPSocket::Bind(std::uint32_t address, std::uint16_t port) {
  if (!IsRegistered() || mIsBound) {
    return false;
  }
  // With sharing allowed the system may choose a "free" port that another sharing socket has, which then loses its
  // replies to this one.
  const bool shares = port != 0;
  const sockaddr_in target = MakeAddress(address, port);
  mIsBound = SetOption(SO_REUSEADDR, shares && mReusesAddress) && SetOption(SO_REUSEPORT, shares && mReusesPort) &&
             bind(mDescriptor, reinterpret_cast<const sockaddr*>(&target), sizeof target) == 0;
  return mIsBound;
}

std::uint16_t Sys_UDPSocket::GetPort() const {
  sockaddr_in own = {};
  socklen_t size = sizeof own;
  return IsRegistered() && getsockname(mDescriptor, reinterpret_cast<sockaddr*>(&own), &size) == 0 ? ntohs(own.sin_port)
                                                                                                   : std::uint16_t{0};
}

bool Sys_UDPSocket::AllocateReplyAddress() {
  mHasReplyAddress = IsRegistered();
  return mHasReplyAddress;
}

bool Sys_UDPSocket::Send(std::span<const std::byte> datagram, std::uint32_t address, std::uint16_t port) {
  const sockaddr_in target = MakeAddress(address, port);
  const ssize_t sent = sendto(mDescriptor, datagram.data(), datagram.size(), 0,
                              reinterpret_cast<const sockaddr*>(&target), sizeof target);
  mIsBound = mIsBound || sent >= 0;
  return sent == static_cast<ssize_t>(datagram.size());
}

Sys_UDPSocket::Result Sys_UDPSocket::Receive(std::span<std::byte> buffer, std::int64_t microseconds,
                                             std::size_t* size) {
  if (!mHasReplyAddress) {
    return Result::failed;
  }
  const std::int64_t end = Sys_Clock::RawMicroseconds() + std::max<std::int64_t>(microseconds, 0);
  while (true) {
    sockaddr_in source = {};
    socklen_t sourceSize = sizeof source;
    const ssize_t count =
        recvfrom(mDescriptor, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&source), &sourceSize);
    if (count >= 0) {
      mReplyAddress = ntohl(source.sin_addr.s_addr);
      mReplyPort = ntohs(source.sin_port);
      *size = static_cast<std::size_t>(count);
      return Result::received;
    }
    if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
      return Result::failed;
    }
    const std::int64_t left = end - Sys_Clock::RawMicroseconds();
    if (left <= 0) {
      return Result::timedOut;
    }
    if (WaitReadable(mDescriptor, left) < 0 && errno != EINTR) {
      return Result::failed;
    }
  }
}

bool Sys_UDPSocket::SetOption(int option, bool value) const {
  const int number = value ? 1 : 0;
  return setsockopt(mDescriptor, SOL_SOCKET, option, &number, sizeof number) == 0;
}
