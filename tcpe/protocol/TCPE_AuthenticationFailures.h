#pragma once

#include "tcpe/protocol/TCPE_Limits.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

/// The addresses from which the shared secret was not proved of late. They stay marked for a while, or until somebody
/// there proves it; and after a wrong proof no other from there is examined for a moment, which is what bounds
/// guessing. Who guesses from more addresses than are remembered gains nothing: a proof from an address that is not
/// known is examined only when there is room for it. One thread uses it; any thread asks whether an address is marked.
class TCPE_AuthenticationFailures {
public:
  explicit TCPE_AuthenticationFailures(const TCPE_Limits& limits)
      : mMarkTime(limits.authenticationFailure), mProofPause(limits.proofPause), mEntries(limits.maxFailedAddresses) {}

  void Add(std::uint32_t address, TCPE_Time now);
  /// The failure that was just added is a proof that was examined.
  void PutOffNextProof(std::uint32_t address, TCPE_Time now);
  void Forget(std::uint32_t address);
  bool IsMarked(std::uint32_t address, TCPE_Time now) const;
  /// From when on another proof may be examined.
  TCPE_Time NextProof(std::uint32_t address);

private:
  struct Entry {
    std::atomic<std::uint32_t> address = 0;
    std::atomic<TCPE_Time> markedUntil = 0;
    std::array<TCPE_Time, TCPE_Limits::kWrongProofs> latest{}; ///< failures, the oldest first
    TCPE_Time nextProof = 0;
  };

  Entry* Find(std::uint32_t address);

  const TCPE_Time mMarkTime;
  const TCPE_Time mProofPause;
  std::vector<Entry> mEntries;
};
