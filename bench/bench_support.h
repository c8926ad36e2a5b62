#pragma once

#include <trel/Sys_Socket.h>
#include <trel/Trel.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>

/// What the measuring programs that talk to other processes share.
namespace bench {

[[noreturn]] inline void Fail(const char* what) {
  std::perror(what);
  std::exit(EXIT_FAILURE);
}

inline sockaddr_in AddressOf(std::uint32_t address, std::uint16_t port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_addr.s_addr = htonl(address);
  result.sin_port = htons(port);
  return result;
}

inline void WithoutDelay(int socket) {
  const int on = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

inline int ListenAt(std::uint32_t address, std::uint16_t port) {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  const int on = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in place = AddressOf(address, port);
  if (bind(listener, reinterpret_cast<const sockaddr*>(&place), sizeof place) != 0 || listen(listener, 1) != 0) {
    Fail("raw listener");
  }
  return listener;
}

inline int ConnectTo(std::uint32_t address, std::uint16_t port) {
  const int raw = socket(AF_INET, SOCK_STREAM, 0);
  const sockaddr_in place = AddressOf(address, port);
  if (connect(raw, reinterpret_cast<const sockaddr*>(&place), sizeof place) != 0) {
    Fail("raw connection");
  }
  WithoutDelay(raw);
  return raw;
}

inline bool ReadWhole(int socket, void* buffer, std::size_t size) {
  return recv(socket, buffer, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

inline void RunOn(int core) {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(static_cast<std::size_t>(core), &cores);
  if (sched_setaffinity(0, sizeof cores, &cores) != 0) {
    Fail("choosing a core");
  }
}

inline void StartEngine(std::uint32_t address, std::uint16_t port) {
  Trel_Init::Init();
  Trel_CommPreferences::Inst()->SetLocalInterfaceAddress(address);
  Trel_CommPreferences::Inst()->SetCommunicationPort(port);
  if (Trel_CommManager::Initialize(Trel_CommPreferences::Inst(), nullptr) != eTCPE_Status_Success) {
    std::fprintf(stderr, "the engine does not start on %s\n", Sys_Socket::DecodeIPAddress(address).c_str());
    std::exit(EXIT_FAILURE);
  }
}

inline double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

/// Memory that the processes forked from now on share with this one.
template <class Content>
Content& Shared() {
  void* const memory = mmap(nullptr, sizeof(Content), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    Fail("shared memory");
  }
  return *new (memory) Content();
}

} // namespace bench
