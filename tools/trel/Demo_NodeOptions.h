#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace CLI {
class App;
}

/// What one system of the demonstration is told when its process starts. Addresses in host order.
struct Demo_NodeOptions {
  std::uint32_t address = 0;
  std::uint32_t master = 0; ///< the node whose own address this is, is the master
  std::uint16_t port = 0;
  std::string name;
  std::int32_t offsetMilliseconds = 0; ///< of the simulated clock
  std::int32_t driftPPM = 0;           ///< of the simulated clock
  std::int32_t satellites = 0;
  std::int32_t rounds = 0;
  bool legacy = false;
  bool tellsClock = false;      ///< all through the run, for a report
  std::string captureFile;      ///< empty: none
  std::int64_t coordinator = 0; ///< process identifier

  bool IsMaster() const { return address == master; }

  /// The command line that starts a node, and the hidden command of the program that reads it back.
  std::vector<std::string> ToArguments(const std::string& program) const;
  static CLI::App* AddTo(CLI::App& program, Demo_NodeOptions& options);
};
