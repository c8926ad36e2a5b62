#pragma once

#include "tools/trel/host/Player.h"

#include <trel/host/Trel_LinkState.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

class Trel_LinkSession;

/// Makes the starts that this system is to make, unless they come too late for it.
class Host_Starts {
public:
  /// @param maxLate how late a start may be and be made all the same, microseconds
  Host_Starts(Trel_LinkSession& session, bool isMaster, std::int64_t maxLate);

  /// False when it is too late for it.
  bool Begin(const Trel_AgreedStart& start);
  void GiveUp() { mPlayer.Cancel(); }

  /// How late the start was that was too late for this system; nothing for another one. Thread-safe.
  std::optional<std::int64_t> TooLate(std::int64_t runningTime) const;
  /// The raw time at which this system began; nothing for another start than the last one. Thread-safe.
  std::optional<std::int64_t> BegunAt(std::int64_t runningTime) const;
  /// Says by how much that may be.
  std::string LimitText() const;

private:
  bool WaitFor(std::int64_t runningTime);
  void Report(std::int64_t runningTime, std::int64_t rawTime);
  /// Keeps it in mind when it is.
  bool IsTooLate(std::int64_t runningTime, std::int64_t late);

  Trel_LinkSession& mSession;
  const bool mIsMaster;
  const std::int64_t mMaxLate;
  mutable std::mutex mMutex;
  std::optional<std::pair<std::int64_t, std::int64_t>> mTooLate; // running time, late; guarded by mMutex
  std::optional<std::pair<std::int64_t, std::int64_t>> mBegun;   // running time, raw time; guarded by mMutex
  Player mPlayer;                                                // the last member: its thread uses the others
};
