#include "foundation/Sys_NativeSocket.h"

#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h> // NOLINT(modernize-deprecated-headers): it is the timespec of the system's stamps
#include <unistd.h>

#if !defined(SOCK_CLOEXEC)
namespace {

/// As the flag cannot be given with the call, a program that is started at the very same moment does inherit.
Sys_NativeSocket::Handle NotInherited(Sys_NativeSocket::Handle handle) {
  if (handle >= 0) {
    fcntl(handle, F_SETFD, FD_CLOEXEC);
#if defined(SO_NOSIGPIPE) // where the flag cannot be given with a send either
    const int yes = 1;
    setsockopt(handle, SOL_SOCKET, SO_NOSIGPIPE, &yes, sizeof yes);
#endif
  }
  return handle;
}

} // namespace
#endif

Sys_NativeSocket::Handle Sys_NativeSocket::Open(int type) {
#if defined(SOCK_CLOEXEC)
  return socket(AF_INET, type | SOCK_CLOEXEC, 0);
#else
  return NotInherited(socket(AF_INET, type, 0));
#endif
}

Sys_NativeSocket::Handle Sys_NativeSocket::Accept(Handle listener) {
#if defined(SOCK_CLOEXEC)
  return accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
#else
  return NotInherited(accept(listener, nullptr, nullptr));
#endif
}

void Sys_NativeSocket::Close(Handle handle) { close(handle); }

#if defined(SO_TIMESTAMPNS)

void Sys_NativeSocket::WantStamps(Handle handle) {
  const int yes = 1;
  setsockopt(handle, SOL_SOCKET, SO_TIMESTAMPNS, &yes, sizeof yes);
}

std::ptrdiff_t Sys_NativeSocket::Receive(Handle handle, std::span<std::byte> space,
                                         std::optional<std::int64_t>* stamp) {
  constexpr std::int64_t kSecond = 1'000'000'000;
  alignas(cmsghdr) std::byte control[CMSG_SPACE(sizeof(timespec))]; // NOLINT(modernize-avoid-c-arrays)
  iovec place = {.iov_base = space.data(), .iov_len = space.size()};
  msghdr message = {};
  message.msg_iov = &place;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  const ssize_t count = recvmsg(handle, &message, 0);
  stamp->reset();
  const cmsghdr* const header = count > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
  if (header != nullptr && header->cmsg_level == SOL_SOCKET && header->cmsg_type == SO_TIMESTAMPNS) {
    timespec time = {};
    std::memcpy(&time, CMSG_DATA(header), sizeof time);
    *stamp = std::int64_t{time.tv_sec} * kSecond + time.tv_nsec;
  }
  return count;
}

#else

void Sys_NativeSocket::WantStamps(Handle /*handle*/) {}

std::ptrdiff_t Sys_NativeSocket::Receive(Handle handle, std::span<std::byte> space,
                                         std::optional<std::int64_t>* stamp) {
  stamp->reset();
  return recv(handle, space.data(), space.size(), 0);
}

#endif
