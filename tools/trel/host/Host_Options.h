#pragma once

#include "tools/trel/common/EngineOptions.h"
#include "tools/trel/host/Host_TrialOptions.h"

#include <cstdint>
#include <string>

namespace CLI {
class App;
}

/// The command line of `trel host`.
struct Host_Options {
  EngineOptions engine;
  Host_TrialOptions trial;
  bool isMaster = false;
  bool isSatellite = false;
  std::string name;
  std::uint32_t masterAddress = 0; ///< satellite: 0 searches
  std::int32_t maxSatellites = 0;  ///< 0: as the start-up option says
  std::int32_t identifier = 0;     ///< 0: a random one
  std::int64_t maxLate = 100'000;  ///< microseconds by which a start may come late and be made all the same
  std::string captureFile;         ///< empty: none
  bool mesh = false;
  bool json = false;
  bool verbose = false;
  std::string recording; ///< file; empty: none

  void AddTo(CLI::App& command);
  /// Throws CLI::ValidationError for what does not go together.
  void Check() const;

private:
  bool isConnectGiven = false;
};
