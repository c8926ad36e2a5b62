#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <sys/types.h>

/// The program that has a port of this machine.
struct PortOwner {
  pid_t process = 0; ///< 0: somebody, but the operating system does not tell whom
  std::string name;

  /// "trel (process 123)", or "another program".
  std::string Text() const;

  /// Nothing when the port is free at that address, or when the operating system does not tell.
  static std::optional<PortOwner> OfTCP(std::uint32_t address, std::uint16_t port);
  static std::optional<PortOwner> OfUDP(std::uint32_t address, std::uint16_t port);
};
