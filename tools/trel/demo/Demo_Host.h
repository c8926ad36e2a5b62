#pragma once

#include "tools/trel/demo/Demo_Process.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// One system of the demonstration: a `trel host` in a process of its own, and what is known of it from outside.
struct Demo_Host {
  struct Options {
    bool isMaster = false;
    std::uint32_t address = 0; ///< in host order
    std::uint32_t master = 0;
    std::uint16_t port = 0;
    std::string name{};
    std::int32_t offsetMilliseconds = 0; ///< of the simulated clock
    std::int32_t driftPPM = 0;           ///< of the simulated clock
    std::int32_t satellites = 0;         ///< that the master admits
    bool tellsClock = false;             ///< all through the run, for a report
    std::string captureFile{};           ///< empty: none
  };

  /// Starts the process, which takes commands and tells events, one JSON object a line.
  /// @throws std::system_error when it cannot be started
  explicit Demo_Host(Options hostOptions);

  /// An event `answer` or `error` follows.
  void Command(const std::string& line) const { process.Send(line + '\n'); }

  const Options options;
  const std::string address; ///< as text
  Demo_Process process;
  bool isLinked = false; ///< as the master says, like the next three
  bool isLocked = false;
  bool isLost = false;
  std::string transport{};
  bool isLeaving = false; ///< it has been told to end
  bool isOver = false;    ///< the end of its process has been seen to
};

/// The satellites, and the master last.
using Demo_Hosts = std::vector<std::unique_ptr<Demo_Host>>;
