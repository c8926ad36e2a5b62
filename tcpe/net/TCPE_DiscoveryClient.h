#pragma once

#include "tcpe/net/TCPE_ByteTap.h"
#include "tcpe/protocol/TCPE_DiscoveryCodec.h"
#include "tcpe/protocol/TCPE_DiscoveryCounters.h"
#include "tcpe/protocol/TCPE_Limits.h"

#include <atomic>
#include <cstdint>

class Sys_UDPSocket;

/// The asking side of discovery, over sockets of the callers. What was asked is kept with the socket. Thread-safe; one
/// thread at a time for each socket.
class TCPE_DiscoveryClient {
public:
  using Kind = TCPE_DiscoveryCodec::Kind;

  TCPE_DiscoveryClient(const TCPE_Limits& limits, TCPE_DiscoveryCodec::Config datagrams, TCPE_ByteTap& tap)
      : mMaxAnswering(limits.maxAnsweringSystems), mCodec(std::move(datagrams)), mTap(tap) {}

  /// Sends a query, which takes the place of what this socket asked before. False when it could not be sent.
  bool Ask(Sys_UDPSocket& socket, TCPE_DiscoveryCodec::Query query, std::uint32_t localAddress, std::uint32_t address,
           std::uint16_t port);
  /// Waits for a reply that does not come from `localAddress`, and lowers the remaining time by the time that this
  /// took; to 0 when no reply can come any more.
  bool Receive(Sys_UDPSocket& socket, Kind kind, std::uint32_t localAddress, std::int32_t* remainingMilliseconds,
               TCPE_DiscoveryCodec::Reply* reply);
  /// Ends whoever receives.
  void Stop() { mIsStopping = true; }
  const TCPE_DiscoveryCounters& Counters() const { return mCounters; }

private:
  struct Question;

  bool ReceiveUntil(TCPE_Time end, Sys_UDPSocket& socket, Question& question, std::uint32_t localAddress,
                    TCPE_DiscoveryCodec::Reply* reply);

  const std::size_t mMaxAnswering;
  const TCPE_DiscoveryCodec mCodec;
  TCPE_ByteTap& mTap;
  TCPE_DiscoveryCounters mCounters;
  std::atomic<bool> mIsStopping = false;
};
