#pragma once

#include "tcpe/protocol/TCPE_AnswerRate.h"
#include "tcpe/protocol/TCPE_DiscoveryCodec.h"
#include "tcpe/protocol/TCPE_DiscoveryCounters.h"
#include "tcpe/protocol/TCPE_KnownNonces.h"
#include "tcpe/protocol/TCPE_Limits.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <vector>

/// Answers queries, without sockets or a clock: who is answered, with what, and when.
///
/// Satellites answer who looks for satellites, all others who looks for masters. A query that went to everybody is
/// answered after a random delay, so that not everybody answers at once. With a key each query is answered once.
class TCPE_DiscoveryResponder {
public:
  /// This system as it is now.
  struct Self {
    TCPE_DiscoveryCodec::Reply reply;
    bool isSatellite = false;
  };
  struct Config {
    TCPE_Limits limits;
    TCPE_DiscoveryCodec::Config datagrams;
    std::function<Self()> describe;
    std::function<std::uint64_t()> random;
  };
  struct Asker {
    std::uint32_t address = 0;
    std::uint16_t port = 0;
  };
  struct Answer {
    Asker to;
    std::vector<std::byte> datagram;
  };

  explicit TCPE_DiscoveryResponder(Config config);

  void Received(std::span<const std::byte> datagram, const Asker& from, bool wasBroadcast, TCPE_Time now);
  /// The next answer that is due, to be sent from this system's address. Call until there is none.
  std::optional<Answer> NextAnswer(std::uint32_t localAddress, TCPE_Time now);
  /// When NextAnswer wants to be called again.
  TCPE_Time NextDeadline() const;
  const TCPE_DiscoveryCounters& Counters() const { return mCounters; }

private:
  struct Due {
    Asker to;
    TCPE_DiscoveryCodec::Query query;
  };

  const Config mConfig;
  const TCPE_DiscoveryCodec mCodec;
  TCPE_AnswerRate mRate;
  TCPE_KnownNonces mKnownNonces; ///< of queries with a right tag
  TCPE_DiscoveryCounters mCounters;
  std::multimap<TCPE_Time, Due> mDue;
};
