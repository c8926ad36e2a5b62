#pragma once

#include "tools/trel/simulate/Simulate_Scenario.h"

#include <limits>
#include <random>

using Simulate_Random = std::mt19937_64;

/// A machine of the simulation: its clock, and when its threads run. Times are true time, microseconds from the begin.
class Simulate_Machine {
public:
  Simulate_Machine(const Simulate_Scenario::Machine& scenario, Simulate_Random& random);

  /// What its clock shows, fractions included.
  double ClockAt(double time) const;
  /// The end of its sleep; the time itself when it does not sleep then.
  double AwakeFrom(double time) const;
  /// When a thread runs for which something has arrived.
  double RunsAt(double arrival);
  /// Whether the clock jumps or stands still between two moments.
  bool IsUpset(double from, double to) const;

private:
  const Simulate_Scenario::Machine& mScenario;
  Simulate_Random& mRandom;
  double mOffset;
  double mPhase;
};

/// One way through the simulated network.
class Simulate_Way {
public:
  Simulate_Way(const Simulate_Scenario::Way& scenario, Simulate_Random& random);

  /// When a packet arrives. Asked with times that do not go back.
  double ArrivalOf(double sent);

private:
  double Around(double mean) { return std::exponential_distribution<double>(1 / mean)(mRandom); }

  const Simulate_Scenario::Way& mScenario;
  Simulate_Random& mRandom;
  double mBurstBegins = std::numeric_limits<double>::infinity();
  double mBurstEnds = 0;
};
