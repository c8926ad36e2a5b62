#include "tools/trel/common/Status_Judge.h"

#include "tools/trel/common/DurationText.h"
#include "tools/trel/common/Status_Snapshot.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

namespace {

using System = Status_Snapshot::System;

constexpr std::size_t kMostNamed = 3;

std::string Count(std::size_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

/// "; the last start within 46 us", as far as at least two have reported theirs.
std::string LastStart(const Status_Snapshot& snapshot) {
  std::size_t reported = 0;
  std::int64_t first = 0;
  std::int64_t last = 0;
  for (const System& system : snapshot.systems) {
    if (system.late) {
      first = reported == 0 ? *system.late : std::min(first, *system.late);
      last = reported == 0 ? *system.late : std::max(last, *system.late);
      ++reported;
    }
  }
  return reported < 2 ? ""
                      : "; " + Count(reported, "system") + " made the last start within " + DurationText(last - first);
}

/// "Stage (192.168.1.10), ... and 4 more"
std::string NamesOf(const Status_Snapshot& snapshot, const std::vector<const System*>& systems) {
  std::string names;
  for (std::size_t index = 0; index < std::min(systems.size(), kMostNamed); ++index) {
    names += (index == 0 ? "" : ", ") + snapshot.NameOf(systems[index]->address);
  }
  return names + (systems.size() > kMostNamed ? " and " + std::to_string(systems.size() - kMostNamed) + " more" : "");
}

void JudgeMaster(Status_Snapshot& snapshot) {
  std::size_t satellites = 0;
  std::vector<const System*> unlocked;
  std::vector<const System*> missed;
  for (const System& system : snapshot.systems) {
    if (system.isConnected) {
      ++satellites;
      if (!system.isLocked.value_or(false)) {
        unlocked.push_back(&system);
      }
    } else if (system.isLost && system.HasLeftLately()) {
      missed.push_back(&system);
    }
  }
  const std::string lost = missed.empty() ? "" : "; lost: " + NamesOf(snapshot, missed);
  if (!unlocked.empty()) {
    snapshot.sync = Status_Sync::no;
    snapshot.verdict = "NOT IN SYNC";
    snapshot.why = std::to_string(unlocked.size()) + " of " + Count(satellites, "satellite") +
                   " cannot start with the others, the clock is not locked: " + NamesOf(snapshot, unlocked) + lost;
  } else if (satellites == 0) {
    snapshot.sync = missed.empty() ? Status_Sync::soon : Status_Sync::no;
    snapshot.verdict = "NOBODY IS LINKED";
    snapshot.why = "this is the master; it waits for satellites" + lost;
  } else {
    snapshot.sync = missed.empty() ? Status_Sync::yes : Status_Sync::soon;
    snapshot.verdict = missed.empty() ? "IN SYNC" : "NOT ALL ARE LINKED";
    snapshot.why =
        (satellites == 1   ? std::string("the satellite reports that its clock is locked")
         : satellites == 2 ? std::string("both satellites report that their clocks are locked")
                           : "all " + Count(satellites, "satellite") + " report that their clocks are locked") +
        LastStart(snapshot) + lost;
  }
}

/// What is wrong with the master's clock when that is more than the clocks of two working machines can differ; empty
/// when nothing is.
std::string Implausible(const Trel_ClockStatus& clock) {
  constexpr double kMillion = 1e6;
  constexpr double kMostBetweenClocks = 1000; // ppm; of those in use hardly one is off by 100
  const bool isBounded = clock.errorBound != Trel_ClockStatus::kNoErrorBound && clock.span > 0;
  const double uncertainty =
      isBounded ? kMillion * static_cast<double>(clock.errorBound) / static_cast<double>(clock.span) : 0;
  if (!clock.isLocked || std::abs(clock.rate) - uncertainty <= kMostBetweenClocks) {
    return {};
  }
  const double speed = 1 / (1 + clock.rate / kMillion); // of the master's clock, in that of this system
  std::ostringstream text;
  text << "the running time of the master is implausible, it ";
  if (speed < 0) {
    text << "runs backwards";
  } else if (std::isinf(clock.rate)) {
    text << "stands still";
  } else {
    text << "runs " << std::setprecision(4) << speed << " times as fast as the clock of this system";
  }
  text << ": end the host of the master, and see to the clocks of both machines";
  return text.str();
}

std::string Jumped(const Trel_ClockStatus& clock) {
  return "a clock has jumped, this system's by " + DurationText(std::abs(clock.lastJump)) +
         (clock.lastJump < 0 ? " back, or the master's ahead" : " ahead, or the master's back") +
         (clock.jumps > 1 ? ", the last of " + std::to_string(clock.jumps) + " jumps" : "") +
         "; measurements from before still count";
}

void JudgeSatellite(Status_Snapshot& snapshot) {
  const Trel_ClockStatus clock = snapshot.clock.value_or(Trel_ClockStatus());
  const bool isKnown = clock.state == eTrel_ClockState_Locked || clock.state == eTrel_ClockState_Stable;
  const std::string bound = clock.errorBound != Trel_ClockStatus::kNoErrorBound
                                ? "to within " + DurationText(clock.errorBound)
                                : std::string("for a while");
  if (!snapshot.isLinked) {
    snapshot.sync = isKnown ? Status_Sync::soon : Status_Sync::no;
    snapshot.verdict = "NOT LINKED";
    snapshot.why = snapshot.whyNotLinked.empty() ? "There is no connection with a master." : snapshot.whyNotLinked;
    if (isKnown) {
      snapshot.why += " The clock still runs with the master's, " + bound + ".";
    }
    return;
  }
  const bool hasJumped = clock.reason == eTrel_ClockReason_ClockJumped;
  if (const std::string implausible = Implausible(clock); !implausible.empty() || hasJumped) {
    snapshot.sync = Status_Sync::no;
    snapshot.verdict = "NOT IN SYNC";
    snapshot.why = implausible.empty() ? Jumped(clock) : implausible;
    return;
  }
  const bool isStable = clock.state == eTrel_ClockState_Stable;
  snapshot.sync = isStable                               ? Status_Sync::yes
                  : clock.state == eTrel_ClockState_Lost ? Status_Sync::no
                                                         : Status_Sync::soon;
  snapshot.verdict = isStable                               ? "IN SYNC"
                     : isKnown                              ? "ROUGHLY IN SYNC"
                     : clock.state == eTrel_ClockState_Lost ? "NOT IN SYNC"
                                                            : "NOT IN SYNC YET";
  snapshot.why = (isKnown ? bound + ", " : "") + clock.GetReasonText();
}

} // namespace

void Status_Judge(Status_Snapshot& snapshot) {
  if (snapshot.isMaster) {
    JudgeMaster(snapshot);
  } else {
    JudgeSatellite(snapshot);
  }
}
