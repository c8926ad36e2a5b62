#include "tools/trel/demo/FreePort.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

/// The port that a socket got that asked for one, or 0.
std::uint16_t Bind(std::uint32_t address, std::uint16_t port) {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  const int on = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in name{};
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = htonl(address);
  name.sin_port = htons(port);
  socklen_t size = sizeof name;
  auto* const generic = reinterpret_cast<sockaddr*>(&name);
  const bool isBound =
      bind(listener, generic, size) == 0 && listen(listener, 1) == 0 && getsockname(listener, generic, &size) == 0;
  close(listener);
  return isBound ? ntohs(name.sin_port) : std::uint16_t{0};
}

} // namespace

std::uint16_t FreePort(const std::vector<std::uint32_t>& addresses, std::uint16_t preferred) {
  constexpr int kAttempts = 16;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const std::uint16_t port = Bind(addresses.front(), attempt == 0 ? preferred : std::uint16_t{0});
    if (port != 0 && std::all_of(addresses.begin() + 1, addresses.end(),
                                 [port](std::uint32_t address) { return Bind(address, port) != 0; })) {
      return port;
    }
  }
  throw std::system_error(errno, std::generic_category(), "no port to listen on");
}
