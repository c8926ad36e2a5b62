#pragma once

#include "tcpe/protocol/TCPE_Limits.h"

#include <trel/Sys_Clock.h>

#include <cstdint>
#include <optional>

/// When what was read had arrived at this machine.
struct TCPE_Arrival {
  TCPE_Time read = 0;                             ///< when the read returned
  TCPE_Time arrived = 0;                          ///< the same, where nothing better is known
  std::optional<std::int64_t> hostTimeOfSource{}; ///< an injected source's, when the read returned

  /// What holds for a frame that was read together with others: a stamp is that of the last bytes.
  TCPE_Arrival OfSeveral() const { return {read, read, hostTimeOfSource}; }
  /// What holds for the answer to something: no stamp that says otherwise is right.
  TCPE_Arrival NotBefore(TCPE_Time sent) const { return arrived >= sent ? *this : OfSeveral(); }
  std::int64_t HostTime() const { return hostTimeOfSource.value_or(Sys_Clock::FromRaw(arrived)); }
};

/// Turns the stamps of the operating system, which are of wall time, into raw time. One thread at a time.
///
/// Why at all: a thread has to be woken before it can read, and whoever waits at the other side does not; so without
/// the stamp one way would always look longer than the other.
///
/// A stamp is not believed when it is of the future or too old, nor when the wall clock was set since the read before.
class TCPE_ArrivalClock {
public:
  static constexpr std::int64_t kOldest = 2'000'000; ///< nanoseconds from a stamp that is believed to its read

  /// Both clocks when a read returned, raw first, and the stamp, if there is one. Nanoseconds.
  TCPE_Arrival ArrivalOf(std::int64_t raw, std::int64_t wall, std::optional<std::int64_t> stamp);

private:
  std::optional<std::int64_t> mWallAhead; // of the raw clock, at the read before
};
