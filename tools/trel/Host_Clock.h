#pragma once

#include <trel/host/Trel_RunningTimeExchange.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>

/// The master's running time, as this system knows it: the master has it, a satellite predicts it.
class Host_Clock {
public:
  /// A master's running time is near zero now. After the platform is prepared.
  explicit Host_Clock(bool isMaster);

  /// Whether the times below are known. Always on the master.
  bool IsLocked() const;
  std::optional<std::int64_t> RunningTime(std::int64_t hostTime) const;
  std::optional<std::int64_t> HostTime(std::int64_t runningTime) const;
  /// Waits for a running time; false, at once, when it is not known.
  bool WaitUntil(std::int64_t runningTime) const;
  /// The master's part in keeping the clocks of the others correlated; called often, on one thread.
  void Tick(const std::set<std::uint32_t>& addresses);
  /// The last round trip of each of these systems with which that has happened since the last call, microseconds.
  std::map<std::uint32_t, std::int64_t> TakeRoundTrips(const std::set<std::uint32_t>& addresses);
  /// How long a Tick for the same systems has nothing to do.
  std::chrono::microseconds UntilDue(std::chrono::microseconds longest) const;

private:
  bool mIsMaster;
  std::int64_t mEpoch; // host time of the master's running time 0
  Trel_RunningTimeExchange mExchange;
  std::map<std::uint32_t, std::int64_t> mVouched; // by address, when its last round trip was taken
};
