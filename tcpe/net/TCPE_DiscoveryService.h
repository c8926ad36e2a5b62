#pragma once

#include "tcpe/net/TCPE_ByteTap.h"
#include "tcpe/protocol/TCPE_DiscoveryResponder.h"

#include <trel/TCPE_Types.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include <asio/io_context.hpp>
#include <asio/ip/udp.hpp>
#include <asio/steady_timer.hpp>

/// The sockets of the answering side of discovery. On the network thread, but for Open before that thread runs.
///
/// One socket, shared with other systems of this machine, hears what goes to everybody; the other hears what goes to
/// this address alone, and sends all answers.
class TCPE_DiscoveryService {
public:
  TCPE_DiscoveryService(asio::io_context& context, TCPE_DiscoveryResponder::Config config, TCPE_ByteTap& tap);

  /// Port 0 opens nothing. With broadcast address 0 only queries to this address are heard.
  ETCPE_Status Open(std::uint32_t address, std::uint32_t broadcastAddress, std::uint16_t port);
  void Run();
  void Close();
  const TCPE_DiscoveryCounters& Counters() const { return mResponder.Counters(); }

private:
  struct Ear {
    explicit Ear(asio::io_context& context) : socket(context), pause(context) {}
    asio::ip::udp::socket socket;
    asio::steady_timer pause;
    asio::ip::udp::endpoint sender;
    std::array<std::byte, 2048> buffer{}; ///< more than any datagram of ours; longer ones are cut and do not parse
  };

  static asio::error_code Bind(Ear& ear, std::uint32_t address, std::uint16_t port, bool shares);
  void Listen(Ear& ear);
  void Heard(Ear& ear, std::size_t size);
  void SendDue();

  TCPE_DiscoveryResponder mResponder;
  TCPE_ByteTap& mTap;
  Ear mOwn;
  Ear mShared;
  asio::steady_timer mTimer;
  std::uint32_t mAddress = 0;
  std::uint32_t mBroadcastAddress = 0;
  std::uint16_t mPort = 0;
  /// Counts the openings: what is completed after a Close was meant for sockets that are gone.
  std::uint64_t mGeneration = 0;
};
