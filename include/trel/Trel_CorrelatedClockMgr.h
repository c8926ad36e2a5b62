#pragma once

#include <trel/Sys_Clock.h>
#include <trel/Trel_ClockStatus.h>
#include <trel/Trel_Export.h>

#include <cstdint>

class Trel_Command;

/// How a wait for the clock has ended.
enum ETrel_ClockWait : std::int32_t {
  eTrel_ClockWait_Locked = 0,
  eTrel_ClockWait_TimedOut = 1,
  eTrel_ClockWait_Terminated = 2, ///< the clock manager was terminated meanwhile, or is not initialised
};

/// Maps this system's host time (Sys_Clock::Microseconds) onto the master's running time. It is fed by the running-time
/// exchange: the master sends its running time, measures the round trip, and vouches for the exchange when it was good.
///
/// All times are signed microseconds. Every operation may be called from any thread. GetRunningTime, GetHostTime and
/// IsLocked are wait-free and real-time-safe once the manager is initialised; the others take a lock and may allocate.
/// The engine initialises the manager; before that, or after Terminate, whatever changes the measurements initialises
/// it first (which allocates and clears the latency maximum), and the three queries answer as without a measurement,
/// take the lock and clear the latency maximum.
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
  static std::int64_t GetRunningTime(std::int64_t hostTime) noexcept;

  /// The host time at a running time of the master; the running time itself while there is no measurement.
  static std::int64_t GetHostTime(std::int64_t runningTime) noexcept;

  /// Forgets every measurement, so the clock is not locked. The latency maximum and the exchange that waits for its
  /// voucher are kept.
  static void ResetClock();

  /// Whether the measurements lie well enough on a line for the other conversions to be relied on: at least four of
  /// them, and a correlation coefficient less than 0.005 away from 1.
  static bool IsLocked() noexcept;

  /// Consumes the three timing commands of the numbering in force (UpdateRunningTime, LastUpdateRunningTimeValid,
  /// ResetClock). The host time of an exchange is the middle between the command's arrival time and entry, so call it
  /// as early as possible after receipt; without an arrival time, or with one that is 2 ms old, it is taken at entry.
  /// @return whether the command was a timing command and is consumed; false for null.
  static bool HandleTimingCommand(Trel_Command* inCommand);

  /// The longest round trip that a master reported since the manager was initialised, microseconds. Takes no lock.
  static std::int64_t GetMaxNetworkLatencyForNonMaster() noexcept;

  /// What is known of the clock at a host time: state, possible error, offset and rate, exchanges taken and refused.
  /// Cheap enough to be polled, and no hindrance to those who convert times; not real-time-safe. Not initialised, there
  /// is no clock and nothing is initialised. The system that supplies the master clock has no measurements either.
  static Trel_ClockStatus GetStatus(std::int64_t hostTime = Sys_Clock::Microseconds());

  /// How wrong GetRunningTime for this host time may be, as Trel_ClockStatus::errorBound says. The same call for
  /// the host time of an agreed start tells how well the systems will start together, as far as is known by now.
  /// Trel_ClockStatus::kNoErrorBound when the clock is not locked or not initialised. Not real-time-safe.
  static std::int64_t GetErrorBound(std::int64_t hostTime);

  /// Waits until the state is locked or stable and the possible error at that moment below a limit. Blocks the caller,
  /// who is woken by measurements, at the end of the time, and at once by Terminate.
  /// @param maxErrorBound microseconds; the bound must be less
  /// @param timeOut microseconds of the machine's monotonic clock; 0 or less only looks
  static ETrel_ClockWait WaitUntilLocked(std::int64_t maxErrorBound, std::int64_t timeOut);
};
