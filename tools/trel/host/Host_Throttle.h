#pragma once

#include "tools/trel/host/Host_Event.h"

#include <cstdint>
#include <deque>
#include <limits>
#include <map>
#include <string>
#include <vector>

/// Bounds what one system can have a host tell, so that its storm fills neither terminals nor disks. Of what goes
/// beyond so many events a second, the newest of each kind is told when the second is over, and how many were left out:
/// so the last that is told of a state is what it is. What was left out before it came here is added. Answers and what
/// is about no system pass. Times are raw times.
class Host_Throttle {
public:
  static constexpr std::size_t kMostOfOneSystem = 50; ///< a second
  static constexpr const char* kLeftOut = "left_out"; ///< kind of the event that tells how many, in `count`
  static constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
  using Events = std::deque<Host_Event>;

  /// Appends to `told` what is to be told now.
  void Take(const Host_Event& event, std::int64_t now, Events& told);
  /// When there may be more to tell without an event.
  std::int64_t NextRelease() const { return mNext; }
  void Release(std::int64_t now, Events& told);

private:
  struct System {
    std::int64_t end = 0; ///< of its second
    std::size_t told = 0;
    std::int64_t leftOut = 0;
    std::string name = {};
    std::vector<Host_Event> newest = {}; ///< of each kind that goes beyond
  };

  static void TellNewest(const std::string& address, System& system, Events& told);

  std::map<std::string, System> mSystems; // those with a second that has not ended, by address
  std::int64_t mNext = kNever;            // first of the ends
};
