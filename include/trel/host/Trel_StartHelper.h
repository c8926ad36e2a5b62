#pragma once

#include <trel/Trel_Export.h>

#include <cstdint>

/// Lets a host's thread start something at an agreed moment.
///
/// Both operations are thread-safe and block the caller. They end with a short spin for accuracy; give the thread a
/// high priority where microseconds matter on a busy machine.
class TREL_EXPORT Trel_StartHelper {
public:
  Trel_StartHelper() = delete;

  /// Waits until the master's running time, as Trel_CorrelatedClockMgr predicts it, reaches a value; returns at once if
  /// it has passed. The prediction is taken anew at least ten times a second and once more 2 ms before the end, so
  /// measurements that arrive during the wait count.
  /// @param runningTime requested start, microseconds on the master's scale
  /// @return false, at once, when the clock is not locked or loses its lock, and for a running time without a host time
  static bool WaitUntilRunningTime(std::int64_t runningTime);

  /// The same on the system that holds the master clock, which knows the host time of its running time.
  /// @param hostTime requested start, microseconds as of Sys_Clock::Microseconds
  static void WaitUntilHostTime(std::int64_t hostTime);
};
