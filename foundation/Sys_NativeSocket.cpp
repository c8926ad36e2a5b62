#include "foundation/Sys_NativeSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
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
