#pragma once

#include <trel/Trel_Export.h>

#include <cstdint>

class Trel_Command;

/// Maps this system's host time (Sys_Clock::Microseconds) onto the master's running time. It is fed by the running-time
/// exchange: the master sends its running time, measures the round trip, and vouches for the exchange when it was good.
///
/// All times are signed microseconds. Every operation may be called from any thread. GetRunningTime, GetHostTime and
/// IsLocked are wait-free and real-time-safe once the manager is initialised; the others take a lock and may allocate.
/// The engine initialises the manager; an operation that needs it before that, or after Terminate, initialises it first
/// (which takes the lock, allocates and clears the latency maximum).
class TREL_EXPORT Trel_CorrelatedClockMgr {
public:
  Trel_CorrelatedClockMgr() = delete;

  /// Creates an empty window of 25 measurements unless there is one already; clears the latency maximum in any case.
  static void Initialize();

  /// Forgets every measurement; the manager is uninitialised afterwards. The exchange that waits for its voucher is
  /// kept.
  static void Terminate();

  /// Adds a measurement. Mind the order: running time first.
  static void AddMeasurement(std::int64_t runningTime, std::int64_t hostTime);

  /// The master's running time at a host time; the host time itself while there is no measurement. Rounding and results
  /// out of range are as in Trel_LinearCorrelator::Line.
  static std::int64_t GetRunningTime(std::int64_t hostTime);

  /// The host time at a running time of the master; the running time itself while there is no measurement.
  static std::int64_t GetHostTime(std::int64_t runningTime);

  /// Forgets every measurement, so the clock is not locked. The latency maximum and the exchange that waits for its
  /// voucher are kept.
  static void ResetClock();

  /// Whether the measurements lie well enough on a line for the other conversions to be relied on: at least four of
  /// them, and a correlation coefficient less than 0.005 away from 1.
  static bool IsLocked();

  /// Consumes the three timing commands of the numbering in force (UpdateRunningTime, LastUpdateRunningTimeValid,
  /// ResetClock). The host time of an exchange is taken at entry, so call it as early as possible after receipt.
  /// @return whether the command was a timing command and is consumed; false for null.
  static bool HandleTimingCommand(Trel_Command* inCommand);

  /// The longest round trip that a master reported since the manager was initialised, microseconds. Takes no lock.
  static std::int64_t GetMaxNetworkLatencyForNonMaster();
};
