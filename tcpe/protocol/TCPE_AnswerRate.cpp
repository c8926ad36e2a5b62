#include "tcpe/protocol/TCPE_AnswerRate.h"

#include <algorithm>

bool TCPE_AnswerRate::Take(std::uint32_t address, TCPE_Time now) {
  constexpr TCPE_Time kBurst = 1'000'000;
  if (!mPaidUntil.contains(address) && mPaidUntil.size() >= mMaxAddresses) {
    ForgetIdlest();
  }
  TCPE_Time& paidUntil = mPaidUntil.try_emplace(address, now).first->second;
  const TCPE_Time next = std::max(paidUntil, now) + mInterval;
  if (next > now + kBurst) {
    return false;
  }
  paidUntil = next;
  return true;
}

void TCPE_AnswerRate::ForgetIdlest() {
  mPaidUntil.erase(std::min_element(mPaidUntil.begin(), mPaidUntil.end(),
                                    [](const auto& left, const auto& right) { return left.second < right.second; }));
}
