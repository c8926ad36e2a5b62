#pragma once

#include "tools/trel/common/Status_System.h"

#include <trel/Trel_ClockStatus.h>

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// Whether this system, on a master all of the link, is in sync.
enum class Status_Sync { no, soon, yes };

/// Everything that a running host tells those who watch it. Times are microseconds, signs as in Trel_ClockStatus.
struct Status_Snapshot {
  using System = Status_System;

  std::string program; ///< the command that runs
  std::int64_t process = 0;
  std::string name;
  std::string address;
  std::string role;
  bool isMaster = false;
  bool isLinked = false;
  std::string whyNotLinked; ///< in sentences; may be empty
  std::optional<std::int64_t> runningTime;
  std::optional<std::string> inControl; ///< address
  Status_Sync sync = Status_Sync::no;
  std::string verdict; ///< a few words, and the sentence that gives the reason
  std::string why;
  std::optional<Trel_ClockStatus> clock; ///< none on the master, which has the clock
  std::vector<System> systems;
  std::map<std::string, std::uint64_t> dropped; ///< input that was dropped, by reason; without zeros

  nlohmann::ordered_json ToJson() const;
  /// What is missing, or of another type, stays as it is.
  static Status_Snapshot FromJson(const nlohmann::ordered_json& json);

  /// "Stage (192.168.1.10)", or the address alone.
  std::string NameOf(const std::string& systemAddress) const;
};
