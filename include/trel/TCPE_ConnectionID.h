#pragma once

#include <trel/Trel_Export.h>

#include <cstdint>
#include <string>

/// Names one end of a connection: IPv4 address, host order, and port. A plain value, ordered by address, then port.
///
/// Thread-safe as every plain value is; real-time-safe but for the text.
class TREL_EXPORT TCPE_ConnectionID {
public:
  /// Address 255.255.255.255 and port 0: not valid.
  TCPE_ConnectionID() = default;
  TCPE_ConnectionID(std::uint32_t address, std::uint16_t port) : mAddress(address), mPort(port) {}

  /// False for address 255.255.255.255 and for port 0.
  bool IsValid() const;

  bool operator==(const TCPE_ConnectionID& other) const;
  bool operator!=(const TCPE_ConnectionID& other) const;
  bool operator<(const TCPE_ConnectionID& other) const;

  static TCPE_ConnectionID AddressAndPort2ConnectionID(std::uint32_t address, std::uint16_t port);
  static void ConnectionID2AddressAndPort(const TCPE_ConnectionID& id, std::uint32_t* address, std::uint16_t* port);
  /// Dotted address, a blank, the port: "10.0.0.5 28282".
  static std::string DecodeConnectionID(const TCPE_ConnectionID& id);

private:
  std::uint32_t mAddress = 0xffffffff;
  std::uint16_t mPort = 0;
};
