#pragma once

#include "tcpe/protocol/TCPE_Limits.h"

#include <algorithm>

/// Allows some at once, and from then on one in each interval.
class TCPE_Rate {
public:
  /// Takes one; false when there is none left. `burst` is the time in which those come again that are allowed at once.
  bool Take(TCPE_Time interval, TCPE_Time burst, TCPE_Time now) {
    const TCPE_Time next = std::max(mPaidUntil, now) + interval;
    if (next > now + burst) {
      return false;
    }
    mPaidUntil = next;
    return true;
  }
  /// The idler one is less.
  bool operator<(const TCPE_Rate& other) const { return mPaidUntil < other.mPaidUntil; }

private:
  /// When those that were taken would have been spread evenly.
  TCPE_Time mPaidUntil = 0;
};
