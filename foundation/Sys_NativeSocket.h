#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

/// IPv4 sockets of the operating system that programs which the host starts do not inherit: such a program would keep
/// a port in use after this system has left it, and connections to it unanswered.
class Sys_NativeSocket {
public:
  using Handle = int;
  static constexpr Handle kNone = -1; ///< refused; errno has the reason

  /// `type` is SOCK_STREAM or SOCK_DGRAM.
  static Handle Open(int type);
  /// The next connection of a listening socket.
  static Handle Accept(Handle listener);
  static void Close(Handle handle);

  /// Has what arrives stamped with the wall time at which this machine received it, where the system can do that.
  static void WantStamps(Handle handle);
  /// Like recv. `stamp`: of the last bytes read, nanoseconds since 1970; nothing without one.
  static std::ptrdiff_t Receive(Handle handle, std::span<std::byte> space, std::optional<std::int64_t>* stamp);
};
