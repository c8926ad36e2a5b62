#pragma once

#include "foundation/Sys_NativeSocket.h"

#include <cerrno>

#include <asio/error.hpp>
#include <asio/error_code.hpp>

/// Has a socket of Asio take over one of the operating system's.
template <class Socket>
void TCPE_TakeOver(Socket& socket, const typename Socket::protocol_type& protocol, Sys_NativeSocket::Handle handle,
                   asio::error_code& error) {
  if (handle == Sys_NativeSocket::kNone) {
    error.assign(errno, asio::error::get_system_category());
    return;
  }
  socket.assign(protocol, handle, error);
  if (error) {
    Sys_NativeSocket::Close(handle);
  }
}

/// Opens a socket that programs which the host starts do not inherit.
template <class Socket>
void TCPE_Open(Socket& socket, const typename Socket::protocol_type& protocol, asio::error_code& error) {
  TCPE_TakeOver(socket, protocol, Sys_NativeSocket::Open(protocol.type()), error);
}
