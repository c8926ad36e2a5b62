#pragma once

#include <trel/Trel_ClockStatus.h>

#include <cstdint>

/// The state of the clock, judged after each measurement and, where time alone changes it, when it is asked for. Each
/// state is harder to reach than to keep, so it does not flicker.
///
/// Not thread-safe. Host times are given; it reads no clock.
class Trel_ClockState {
public:
  static constexpr std::int64_t kAgeOfLoss = 5'000'000;    ///< a line without a newer measurement is out of date; us
  static constexpr std::int64_t kSmallError = 500;         ///< makes the clock stable; us
  static constexpr std::int64_t kLargeError = 1'000;       ///< ends that; us
  static constexpr std::int64_t kMeasurementsToLock = 4;   ///< after a loss
  static constexpr std::int64_t kMeasurementsToSettle = 5; ///< with a small error in a row

  /// What is known after one more measurement.
  struct Measurement {
    std::int64_t hostTime;
    std::int64_t errorBoundBefore; ///< at its host time, just before it was taken
    std::int64_t errorBound;       ///< at its host time, now
    std::int64_t measurements;     ///< in the window
    bool isLocked;
    bool holdsJump; ///< the window does
  };

  /// A loss for want of measurements has the reason eTrel_ClockReason_NoExchange; who knows what came instead says it.
  struct Verdict {
    ETrel_ClockState state = eTrel_ClockState_NoClock;
    ETrel_ClockReason reason = eTrel_ClockReason_NoExchange;
  };

  /// From one host time to another; 0 when that is not later.
  static std::int64_t Age(std::int64_t from, std::int64_t to);

  void Add(const Measurement& measurement);
  Verdict At(std::int64_t hostTime, std::int64_t errorBound) const;

private:
  Verdict Judge(const Measurement& measurement);

  Verdict mVerdict;
  std::int64_t mNewest = 0;
  std::int64_t mSinceLoss = kMeasurementsToLock;
  std::int64_t mSmallInARow = 0;
};
