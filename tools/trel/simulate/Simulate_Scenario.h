#pragma once

#include "tools/trel/simulate/Simulate_Figures.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

/// What a simulation plays. Times are microseconds.
struct Simulate_Scenario {
  /// Pairs of a moment, from the begin of the simulation, and an amount.
  using Happenings = std::vector<std::pair<double, double>>;

  /// The clock of a machine, and how long its threads take to run.
  struct Machine {
    double drift = 0;                              ///< parts per million, positive: fast
    std::vector<std::pair<double, double>> wander; ///< amplitude of a change of the drift, ppm, and its period
    Happenings jumps;                              ///< of the clock
    Happenings sleeps; ///< the machine is suspended for that long, and its clock stands still
    double wake = 20;  ///< mean time until a thread runs after something has arrived for it
  };

  /// One way through the network.
  struct Way {
    double shortest = 40;
    double mean = 5;       ///< of what a packet takes longer than the shortest
    double loss = 0;       ///< percent of the packets, which are sent again after 200 ms
    double burstEvery = 0; ///< mean time between bursts of other traffic; 0: there are none
    double burstFor = 0;   ///< mean length of a burst
    double burstDelay = 0; ///< most that a packet of ours waits during one
  };

  double duration = 60e6;
  double tick = 10e3; ///< between two looks of the master at what is due
  std::uint32_t satellites = 1;
  std::uint32_t seed = 1;
  std::uint32_t runs = 1; ///< with seeds that follow each other
  Happenings cuts;        ///< nothing passes the network for that long
  Machine master;
  Machine satellite;
  Way there; ///< from the master to a satellite
  Way back;
  Simulate_Figures::Limits limits;
};

/// Lines of key = value, in sections. Throws std::runtime_error that names the file and what is wrong with it.
Simulate_Scenario Simulate_ReadScenario(const std::string& file);

/// What can stand in a file, for the help.
std::string Simulate_ScenarioKeys();
