#pragma once

#include "link/clock/Trel_ClockState.h"
#include "link/clock/Trel_ErrorBound.h"

#include <trel/Trel_ClockStatus.h>
#include <trel/Trel_LinearCorrelator.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>

/// Sees what the clock manager sees, in the same order, and tells what is known of the clock. It changes nothing.
///
/// A jump is told when two measurements in succession differ by more than the delays of their packets can explain. What
/// it makes of the line counts in the error bound until the measurements from before have left the window.
///
/// Times are microseconds. Not thread-safe. Host times are given; it reads no clock.
class Trel_ClockObserver {
public:
  using Line = Trel_LinearCorrelator::Line;

  void RunningTimeArrived(std::int64_t hostTime);
  /// The master has vouched, and the round trip is above the limit.
  void RoundTripTooLong(std::int64_t roundTripTime, std::int64_t limit);
  /// The same within the limit; the measurement is what is added next.
  void RoundTripAccepted(std::int64_t roundTripTime, std::int64_t limit);
  /// @param roundTripTime nothing when the host has measured in its own way
  /// @param line fitted to the measurements, this one included
  void MeasurementAdded(std::int64_t hostTime, std::int64_t runningTime, std::optional<std::int64_t> roundTripTime,
                        const Line& line);
  /// All measurements are forgotten.
  void Reset();

  Trel_ClockStatus GetStatus(std::int64_t hostTime, const Line& line) const;
  std::int64_t GetErrorBound(std::int64_t hostTime) const;

private:
  struct Record {
    std::int64_t mHostTime;
    std::int64_t mRunningTime;
    std::optional<std::int64_t> mRoundTripTime;
    double mJumpError; // what a jump since then adds to its error
  };

  std::size_t WindowSize() const;
  std::int64_t SmallestRoundTrip() const;
  void FindJump(const Record& record);
  void FitErrorBound();

  std::deque<Record> mRecords; // more than the window, so that an undisturbed round trip is among them
  Trel_ErrorBound mErrorBound;
  Trel_ClockState mState;
  bool mWasLocked = false;
  std::size_t mSinceJump = 0; // measurements; meaningless before the first jump
  bool mHasJumped = false;    // since the clock was reset

  bool mAwaitsVoucher = false;
  std::optional<std::int64_t> mLastArrival;
  std::optional<std::int64_t> mLastVouchedFor;                   // arrival; the master sends several until one is good
  ETrel_ClockReason mSinceNewest = eTrel_ClockReason_NoExchange; // what came after the newest measurement
  Trel_ClockStatus mCounts;                                      // the rest of it is unused
};
