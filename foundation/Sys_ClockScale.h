#pragma once

#include <algorithm>
#include <cstdint>

/// The relation of host time and raw time: host = floor((raw - origin) * (1 + drift)) + offset, in whole microseconds
/// and without rounding on the way.
class Sys_ClockScale {
public:
  static constexpr std::int64_t kMaxDriftPPM = 100'000;
  /// Far enough from the ends of the type that no sum or product below leaves it.
  static constexpr std::int64_t kMaxTime = std::int64_t{1} << 61;

  constexpr Sys_ClockScale(std::int64_t rawOrigin, std::int64_t offset, std::int64_t driftPPM)
      : mRawOrigin(rawOrigin), mOffset(offset), mHostPerMillion(kMillion + driftPPM) {}

  constexpr std::int64_t FromRaw(std::int64_t rawTime) const {
    const std::int64_t elapsed = Limited(rawTime) - mRawOrigin;
    const std::int64_t millions = FloorDivide(elapsed, kMillion);
    const std::int64_t rest = elapsed - millions * kMillion;
    return millions * mHostPerMillion + rest * mHostPerMillion / kMillion + mOffset;
  }

  constexpr std::int64_t ToRaw(std::int64_t hostTime) const {
    const std::int64_t elapsed = Limited(hostTime) - mOffset;
    const std::int64_t millions = FloorDivide(elapsed, mHostPerMillion);
    const std::int64_t rest = elapsed - millions * mHostPerMillion;
    return millions * kMillion + (rest * kMillion + mHostPerMillion - 1) / mHostPerMillion + mRawOrigin;
  }

private:
  static constexpr std::int64_t kMillion = 1'000'000;

  static constexpr std::int64_t Limited(std::int64_t time) { return std::clamp(time, -kMaxTime, kMaxTime); }

  static constexpr std::int64_t FloorDivide(std::int64_t dividend, std::int64_t divisor) {
    return dividend / divisor - (dividend % divisor < 0 ? 1 : 0);
  }

  std::int64_t mRawOrigin;
  std::int64_t mOffset;
  std::int64_t mHostPerMillion;
};
