#pragma once

#include <trel/Trel_Export.h>

#include <cstdint>
#include <limits>

/// How far the clock has come, and whether it can be relied on.
enum ETrel_ClockState : std::int32_t {
  eTrel_ClockState_NoClock = 0,   ///< no measurement: running time equals host time
  eTrel_ClockState_Acquiring = 1, ///< measurements, but no line through them that could be relied on
  eTrel_ClockState_Locked = 2,    ///< a line whose error is known, but not small or not for long
  eTrel_ClockState_Stable = 3,    ///< the error has been small for a while
  eTrel_ClockState_Lost = 4,      ///< there was a line, and it is out of date or holds no more
};

/// Why the clock is in its state.
enum ETrel_ClockReason : std::int32_t {
  eTrel_ClockReason_NoExchange = 0,        ///< no running time comes from the master (any more)
  eTrel_ClockReason_NotVouchedFor = 1,     ///< running times come, but the master vouches for none
  eTrel_ClockReason_RoundTripsTooLong = 2, ///< the master vouches, but for round trips above the limit
  eTrel_ClockReason_TooFewMeasurements = 3,
  eTrel_ClockReason_NotOnALine = 4,
  eTrel_ClockReason_ClockJumped = 5, ///< there are measurements from before and after the jump of a clock
  eTrel_ClockReason_ErrorTooLarge = 6,
  eTrel_ClockReason_Settling = 7, ///< the error is small, but has not been for long
  eTrel_ClockReason_ErrorSmall = 8,
};

/// Why an exchange did not become a measurement.
enum ETrel_ClockRejection : std::int32_t {
  eTrel_ClockRejection_None = 0,
  eTrel_ClockRejection_NotVouchedFor = 1,    ///< the next running time came before a voucher for this one
  eTrel_ClockRejection_RoundTripTooLong = 2, ///< vouched for, but with a round trip above the limit
};

/// What is known of the clock at one host time: a snapshot that nothing changes any more.
///
/// Times are microseconds. Signs: positive means that the local clock is ahead of the master's, or runs faster.
/// The window is the measurements that the line is fitted to, at most 25. The counts begin when the clock manager is
/// initialised; resetting the clock leaves them.
struct TREL_EXPORT Trel_ClockStatus {
  /// A bound on the error that nobody can give.
  static constexpr std::int64_t kNoErrorBound = std::numeric_limits<std::int64_t>::max();

  ETrel_ClockState state = eTrel_ClockState_NoClock;
  ETrel_ClockReason reason = eTrel_ClockReason_NoExchange;
  bool isLocked = false; ///< what IsLocked answers: the measurements correlate. It says nothing about accuracy.

  std::int64_t hostTime = 0; ///< of this status
  /// How wrong the running time predicted for hostTime may be, apart from a constant difference between the ways of
  /// the two directions; that can add up to half of smallestRoundTrip and cannot be seen from here.
  std::int64_t errorBound = kNoErrorBound;
  double offset = 0.0; ///< host time minus predicted running time, at hostTime
  double rate = 0.0;   ///< how much faster the local clock runs than the master's, ppm

  std::int64_t measurements = 0;  ///< in the window
  std::int64_t span = 0;          ///< from the oldest measurement in the window to the newest
  std::int64_t age = 0;           ///< of the newest measurement at hostTime; 0 without one
  double residualDeviation = 0.0; ///< standard deviation of the measurements from the line; 0 for fewer than three

  std::int64_t lastRoundTrip = 0;     ///< of the last exchange that was vouched for, accepted or not
  std::int64_t smallestRoundTrip = 0; ///< of the last 100 accepted exchanges since the clock was reset; 0 without one
  std::int64_t roundTripLimit = 0;    ///< that applied to the last voucher

  std::int64_t accepted = 0; ///< measurements taken
  std::int64_t rejectedNotVouchedFor = 0;
  std::int64_t rejectedRoundTripTooLong = 0;
  ETrel_ClockRejection lastRejection = eTrel_ClockRejection_None;

  std::int64_t jumps = 0;    ///< of one clock against the other, which no delay in the network explains
  std::int64_t lastJump = 0; ///< how far the local clock jumped ahead; a jump of the master's back looks the same

  /// State and reason in words, for logs and displays; never null. Thread-safe and real-time-safe.
  [[nodiscard]] const char* GetStateText() const noexcept;
  [[nodiscard]] const char* GetReasonText() const noexcept;
  [[nodiscard]] static const char* GetRejectionText(ETrel_ClockRejection rejection) noexcept;
};
