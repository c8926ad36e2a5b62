#pragma once

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
};
