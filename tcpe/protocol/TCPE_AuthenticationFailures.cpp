#include "tcpe/protocol/TCPE_AuthenticationFailures.h"

#include <algorithm>

void TCPE_AuthenticationFailures::Add(std::uint32_t address, TCPE_Time now) {
  auto entry = std::find_if(mEntries.begin(), mEntries.end(),
                            [address](const Entry& candidate) { return candidate.address == address; });
  if (entry == mEntries.end()) {
    entry = std::min_element(mEntries.begin(), mEntries.end(), [](const Entry& left, const Entry& right) {
      return left.markedUntil < right.markedUntil;
    });
    entry->markedUntil = 0; // not marked on behalf of the address that was here
    entry->address = address;
    entry->latest.fill(0);
  }
  std::rotate(entry->latest.begin(), entry->latest.begin() + 1, entry->latest.end());
  entry->latest.back() = now;
  entry->markedUntil = std::max(now + mMarkTime, entry->latest.front() + TCPE_Limits::kWrongProofsTime);
}

bool TCPE_AuthenticationFailures::IsMarked(std::uint32_t address, TCPE_Time now) const {
  return std::any_of(mEntries.begin(), mEntries.end(), [address, now](const Entry& entry) {
    return entry.address == address && now < entry.markedUntil;
  });
}
