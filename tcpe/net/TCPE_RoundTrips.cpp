#include "tcpe/net/TCPE_RoundTrips.h"

TCPE_RoundTripTimes TCPE_RoundTrips::Times() const {
  std::array<std::uint64_t, kClasses> counts{};
  TCPE_RoundTripTimes times;
  for (std::size_t index = 0; index < kClasses; ++index) {
    counts.at(index) = mCounts.at(index).load(std::memory_order_relaxed);
    times.count += counts.at(index);
  }
  // The smallest duration that at least this share of all did not exceed.
  const auto percentile = [&](std::uint64_t percent) {
    constexpr std::uint64_t kHundred = 100;
    const std::uint64_t rank =
        times.count / kHundred * percent + (times.count % kHundred * percent + kHundred - 1) / kHundred;
    std::uint64_t passed = 0;
    std::size_t index = 0;
    while (index < kClasses - 1 && (passed += counts.at(index)) < rank) {
      ++index;
    }
    return ValueOf(index);
  };
  if (times.count != 0) {
    times.median = percentile(50);
    times.percentile99 = percentile(99);
  }
  return times;
}

std::int64_t TCPE_RoundTrips::ValueOf(std::size_t index) {
  if (index < kExact) {
    return static_cast<std::int64_t>(index);
  }
  constexpr std::size_t kSteps = std::size_t{1} << kStepBits;
  const std::size_t shift = index / kSteps - 1;
  const std::uint64_t begin = std::uint64_t{kSteps + index % kSteps} << shift;
  return static_cast<std::int64_t>(begin + (std::uint64_t{1} << shift) / 2);
}
