#pragma once

#include "tcpe/protocol/TCPE_DiscoveryCodec.h"

#include <atomic>
#include <cstdint>

/// Datagrams that were ignored, by reason. Thread-safe.
struct TCPE_DiscoveryCounters {
  std::atomic<std::uint64_t> malformed = 0;
  std::atomic<std::uint64_t> otherNumbering = 0;
  std::atomic<std::uint64_t> notAuthentic = 0;
  std::atomic<std::uint64_t> beyondRate = 0;

  void Count(TCPE_DiscoveryCodec::Verdict verdict) {
    malformed += verdict == TCPE_DiscoveryCodec::Verdict::malformed ? 1 : 0;
    otherNumbering += verdict == TCPE_DiscoveryCodec::Verdict::otherNumbering ? 1 : 0;
    notAuthentic += verdict == TCPE_DiscoveryCodec::Verdict::notAuthentic ? 1 : 0;
  }
};
