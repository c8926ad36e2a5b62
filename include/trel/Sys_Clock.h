#pragma once

#include <trel/Trel_Export.h>

#include <cstdint>
#include <optional>

/// The host clock: signed 64-bit microseconds of a monotonic clock whose zero is near the start of the process. It is
/// never wall time, never set and never steps.
///
/// Beneath it lies the raw clock, the monotonic clock of the machine, which all processes on one machine share. Host
/// time is raw time since the start of the process, changed by two start-up options that let a test put systems with
/// different clocks on one machine: "SimulatedClockOffsetMilliseconds" and "SimulatedClockDriftPPM" (parts per
/// million, positive: this clock runs fast; limited to 100 000 either way).
///
/// Times further from zero than 2^61 us (73 000 years) are taken as that.
class TREL_EXPORT Sys_Clock {
public:
  using Source = std::int64_t (*)();

  /// Reads the two options, which hold from then on. Only the first call has an effect. Before it the clock runs as if
  /// they were not set, so call it before anything reads the clock: with the options set, host time steps here.
  ///
  /// Thread-safe. Not real-time-safe: reads start-up options.
  static void Init();

  /// Host time. Thread-safe and real-time-safe.
  [[nodiscard]] static std::int64_t Microseconds() noexcept;

  /// Raw time: microseconds of the machine's monotonic clock, whose zero is any moment of the past.
  ///
  /// Thread-safe and real-time-safe.
  [[nodiscard]] static std::int64_t RawMicroseconds() noexcept;

  /// The host time shown at a raw time: the greatest that has been reached by then. Exact.
  ///
  /// Thread-safe and real-time-safe.
  [[nodiscard]] static std::int64_t FromRaw(std::int64_t rawTime) noexcept;

  /// The first raw time at which the host clock shows that host time or more. Exact, and so within 1 us the reverse of
  /// FromRaw.
  ///
  /// Thread-safe and real-time-safe.
  [[nodiscard]] static std::int64_t ToRaw(std::int64_t hostTime) noexcept;

  /// Returns once the host clock shows that host time or more; at once if it is past.
  ///
  /// Sleeps until 50 us before, then spins: a sleeping thread wakes late by the scheduler's latency, which the 50 us
  /// cover on an idle machine, and a longer spin would take the processor from other processes that wait for the same
  /// moment. On Linux the thread's timer slack, 50 us by default, is lowered to the least meanwhile. Waits on the real
  /// clock, whatever SetSource has set.
  ///
  /// Thread-safe. Blocks.
  static void WaitUntil(std::int64_t hostTime);

  /// For tests: Microseconds returns what this function returns; null brings back the clock. The function is called on
  /// whichever thread asks for the time.
  ///
  /// Thread-safe and real-time-safe.
  static void SetSource(Source source) noexcept;

  /// What the function that SetSource has set returns; nothing without one. Thread-safe and real-time-safe.
  [[nodiscard]] static std::optional<std::int64_t> OfSource() noexcept;
};
