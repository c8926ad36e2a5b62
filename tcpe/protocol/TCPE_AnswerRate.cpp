#include "tcpe/protocol/TCPE_AnswerRate.h"

#include <algorithm>

bool TCPE_AnswerRate::Take(std::uint32_t address, TCPE_Time now) {
  constexpr TCPE_Time kBurst = 1'000'000;
  if (!mRates.contains(address) && mRates.size() >= mMaxAddresses) {
    ForgetIdlest();
  }
  return mRates[address].Take(mInterval, kBurst, now);
}

void TCPE_AnswerRate::ForgetIdlest() {
  mRates.erase(std::min_element(mRates.begin(), mRates.end(),
                                [](const auto& left, const auto& right) { return left.second < right.second; }));
}
