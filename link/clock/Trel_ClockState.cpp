#include "link/clock/Trel_ClockState.h"

#include <algorithm>
#include <limits>

std::int64_t Trel_ClockState::Age(std::int64_t from, std::int64_t to) {
  constexpr std::uint64_t kLongest = std::numeric_limits<std::int64_t>::max();
  const std::uint64_t age = static_cast<std::uint64_t>(to) - static_cast<std::uint64_t>(from);
  return from < to ? static_cast<std::int64_t>(std::min(age, kLongest)) : 0;
}

void Trel_ClockState::Add(const Measurement& measurement) {
  if (At(measurement.hostTime, measurement.errorBoundBefore).state == eTrel_ClockState_Lost) {
    mSinceLoss = 0;
  }
  ++mSinceLoss;
  mNewest = measurement.hostTime;
  mVerdict = Judge(measurement);
}

Trel_ClockState::Verdict Trel_ClockState::At(std::int64_t hostTime, std::int64_t errorBound) const {
  if (mVerdict.state == eTrel_ClockState_NoClock) {
    return mVerdict;
  }
  if (Age(mNewest, hostTime) > kAgeOfLoss) {
    return {eTrel_ClockState_Lost, eTrel_ClockReason_NoExchange};
  }
  if (mVerdict.state == eTrel_ClockState_Stable && errorBound > kLargeError) {
    return {eTrel_ClockState_Locked, eTrel_ClockReason_ErrorTooLarge};
  }
  return mVerdict;
}

Trel_ClockState::Verdict Trel_ClockState::Judge(const Measurement& measurement) {
  const std::int64_t errorBound = std::max(measurement.errorBoundBefore, measurement.errorBound);
  const bool wasStable = mVerdict.state == eTrel_ClockState_Stable;
  const bool isStable = wasStable && errorBound <= kLargeError;
  mSmallInARow = measurement.errorBound <= kSmallError && (!wasStable || isStable) ? mSmallInARow + 1 : 0;

  if (measurement.holdsJump) {
    mSmallInARow = 0;
    return {eTrel_ClockState_Acquiring, eTrel_ClockReason_ClockJumped};
  }
  if (!measurement.isLocked) {
    const bool wasLocked = mVerdict.state >= eTrel_ClockState_Locked;
    return {wasLocked ? eTrel_ClockState_Lost : eTrel_ClockState_Acquiring,
            measurement.measurements < kMeasurementsToLock ? eTrel_ClockReason_TooFewMeasurements
                                                           : eTrel_ClockReason_NotOnALine};
  }
  if (mSinceLoss < kMeasurementsToLock) {
    return {eTrel_ClockState_Acquiring, eTrel_ClockReason_TooFewMeasurements};
  }
  if (isStable || mSmallInARow >= kMeasurementsToSettle) {
    return {eTrel_ClockState_Stable, eTrel_ClockReason_ErrorSmall};
  }
  return {eTrel_ClockState_Locked, mSmallInARow > 0 ? eTrel_ClockReason_Settling : eTrel_ClockReason_ErrorTooLarge};
}
