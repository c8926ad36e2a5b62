#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// What a report shows. Times are raw times, everything is in microseconds; systems are known by their address as text.
struct Report_Data {
  struct ClockSample {
    std::int64_t time = 0;
    std::optional<double> error = {}; ///< predicted minus true running time
    std::optional<double> bound = {};
    std::optional<double> residual = {};
  };
  struct StateChange {
    std::int64_t time;
    std::string state;
    std::string reason;
  };
  struct System {
    std::string address;
    std::string name; ///< the address when it is not known
    std::string role = {};
    std::vector<ClockSample> clock = {};
    std::vector<StateChange> states = {};
    std::int64_t stateEnd = 0; ///< until then the last state is known, when there are samples
    std::map<std::int64_t, std::int64_t> roundTrips = {}; ///< how often each was measured
    std::optional<double> ratePPM = {};                   ///< last; positive: its clock runs faster than the master's
    std::int64_t accepted = 0;
    std::int64_t rejected = 0;
  };
  struct Start {
    std::int64_t time;                             ///< of the first report
    std::int64_t runningTime;                      ///< requested
    std::map<std::string, std::int64_t> late = {}; ///< by address; actual start minus requested, positive: late
  };
  struct Note {
    std::int64_t time;
    std::string text;
    bool isFailure;
  };

  std::string title = "Trel recording";
  std::string subtitle;
  std::int64_t begin = std::numeric_limits<std::int64_t>::max();
  std::int64_t end = std::numeric_limits<std::int64_t>::min();
  std::vector<System> systems; ///< in the order in which they appeared
  std::vector<Start> starts;
  std::vector<Note> notes;
  std::int64_t failures = 0;
};
