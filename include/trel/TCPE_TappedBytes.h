#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

/// What a byte tap is told: bytes as they are on the network, or the end of a connection. Addresses and ports are in
/// host order.
struct TCPE_TappedBytes {
  enum class Event : std::uint8_t {
    sent,     ///< the operating system took the bytes
    received, ///< the bytes arrived
    closed,   ///< this system closed the connection; no bytes
  };
  enum class Transport : std::uint8_t { tcp, udp };

  Event event = Event::sent;
  Transport transport = Transport::tcp;
  bool isOpenedByPeer = false; ///< of the TCP connection
  std::uint32_t localAddress = 0;
  std::uint16_t localPort = 0;
  std::uint32_t peerAddress = 0;
  std::uint16_t peerPort = 0;
  std::int64_t rawTime = 0;           ///< us, of Sys_Clock::RawMicroseconds; never less than before
  std::span<const std::byte> bytes{}; ///< valid until the tap returns
};

/// A byte tap. It is told of everything that the engine sends and receives, in one order: of a connection every byte
/// once and in its place, of UDP every datagram as a whole, and what was sent before what it brought about. One call at
/// a time, on the thread that sends or receives, which waits until it returns, as does everybody else who has something
/// to send or receive. So it must be quick and must not call the engine; what it throws is only counted.
using TCPE_ByteTapProc = void (*)(const TCPE_TappedBytes& tapped, void* context);
