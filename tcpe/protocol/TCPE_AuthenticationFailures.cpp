#include "tcpe/protocol/TCPE_AuthenticationFailures.h"

#include <algorithm>
#include <utility>

void TCPE_AuthenticationFailures::Add(std::uint32_t address, TCPE_Time now) {
  Entry* entry = Find(address);
  if (entry == nullptr) {
    entry = &*std::min_element(mEntries.begin(), mEntries.end(), [now](const Entry& left, const Entry& right) {
      return std::pair(left.nextProof > now, left.markedUntil.load()) <
             std::pair(right.nextProof > now, right.markedUntil.load());
    });
    if (entry->nextProof > now) {
      return; // none is forgotten before its pause is over
    }
    entry->markedUntil = 0; // not marked on behalf of the address that was here
    entry->address = address;
    entry->latest.fill(0);
    entry->nextProof = 0;
  }
  std::rotate(entry->latest.begin(), entry->latest.begin() + 1, entry->latest.end());
  entry->latest.back() = now;
  entry->markedUntil = std::max(now + mMarkTime, entry->latest.front() + TCPE_Limits::kWrongProofsTime);
}

void TCPE_AuthenticationFailures::PutOffNextProof(std::uint32_t address, TCPE_Time now) {
  if (Entry* const entry = Find(address)) {
    entry->nextProof = now + mProofPause;
  }
}

void TCPE_AuthenticationFailures::Forget(std::uint32_t address) {
  if (Entry* const entry = Find(address)) {
    entry->markedUntil = 0;
    entry->latest.fill(0);
  }
}

bool TCPE_AuthenticationFailures::IsMarked(std::uint32_t address, TCPE_Time now) const {
  return std::any_of(mEntries.begin(), mEntries.end(), [address, now](const Entry& entry) {
    return entry.address == address && now < entry.markedUntil;
  });
}

TCPE_Time TCPE_AuthenticationFailures::NextProof(std::uint32_t address) {
  if (const Entry* const entry = Find(address)) {
    return entry->nextProof;
  }
  return std::min_element(mEntries.begin(), mEntries.end(),
                          [](const Entry& left, const Entry& right) { return left.nextProof < right.nextProof; })
      ->nextProof;
}

TCPE_AuthenticationFailures::Entry* TCPE_AuthenticationFailures::Find(std::uint32_t address) {
  const auto entry = std::find_if(mEntries.begin(), mEntries.end(),
                                  [address](const Entry& candidate) { return candidate.address == address; });
  return entry != mEntries.end() ? &*entry : nullptr;
}
