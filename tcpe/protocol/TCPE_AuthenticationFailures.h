#pragma once

#include "tcpe/protocol/TCPE_Limits.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

/// The addresses from which the shared secret was not proved of late. They stay marked for a while, and nothing that
/// they offer as a proof is looked at meanwhile: that is what bounds guessing. One thread adds, any thread asks.
class TCPE_AuthenticationFailures {
public:
  explicit TCPE_AuthenticationFailures(const TCPE_Limits& limits)
      : mMarkTime(limits.authenticationFailure), mEntries(limits.maxFailedAddresses) {}

  void Add(std::uint32_t address, TCPE_Time now);
  bool IsMarked(std::uint32_t address, TCPE_Time now) const;

private:
  struct Entry {
    std::atomic<std::uint32_t> address = 0;
    std::atomic<TCPE_Time> markedUntil = 0;
    std::array<TCPE_Time, TCPE_Limits::kWrongProofs> latest{}; ///< failures, the oldest first
  };

  const TCPE_Time mMarkTime;
  std::vector<Entry> mEntries;
};
