#pragma once

#include <trel/Trel_Export.h>

#include <cstdint>

/// Lets a host's thread start something at an agreed moment.
///
/// Both operations are thread-safe and block the caller. They raise the thread's priority while they wait
/// (Sys_ThreadPriority), so that a busy machine does not hold it up, and end with a short spin for accuracy. Hold a
/// Sys_ThreadPriority around the call and what is to begin: otherwise the thread may lose the processor between them.
class TREL_EXPORT Trel_StartHelper {
public:
  Trel_StartHelper() = delete;

  /// Waits until the master's running time, as Trel_CorrelatedClockMgr predicts it, reaches a value; returns at once if
  /// it has passed. The prediction is taken anew at least ten times a second and once more 2 ms before the end, so
  /// measurements that arrive during the wait count.
  /// @param runningTime requested start, microseconds on the master's scale
  /// @param late receives how many microseconds after that moment it returns, by the last prediction; may be null, and
  ///        is left alone when false is returned
  /// @return false, at once, when the clock is not locked or loses its lock, and for a running time without a host time
  static bool WaitUntilRunningTime(std::int64_t runningTime, std::int64_t* late = nullptr);

  /// The same on the system that holds the master clock, which knows the host time of its running time.
  /// @param hostTime requested start, microseconds as of Sys_Clock::Microseconds
  /// @return how many microseconds later it is
  static std::int64_t WaitUntilHostTime(std::int64_t hostTime);
};
