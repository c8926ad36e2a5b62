#pragma once

#include "tcpe/protocol/TCPE_Rate.h"

#include <cstddef>
#include <cstdint>
#include <map>

/// Who may be answered: each address a second's worth of answers at once, and from then on that many a second.
class TCPE_AnswerRate {
public:
  explicit TCPE_AnswerRate(const TCPE_Limits& limits)
      : mInterval(TCPE_Time{1'000'000} / limits.answersPerSecond), mMaxAddresses(limits.maxAskers) {}

  /// Takes one answer to an address; false when it has none left.
  bool Take(std::uint32_t address, TCPE_Time now);
  std::size_t Addresses() const { return mRates.size(); }

private:
  void ForgetIdlest();

  const TCPE_Time mInterval;
  const std::size_t mMaxAddresses;
  std::map<std::uint32_t, TCPE_Rate> mRates;
};
