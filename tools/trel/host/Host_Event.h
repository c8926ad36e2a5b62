#pragma once

#include <trel/Sys_Clock.h>

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

/// Something that a host tells: what has happened, or the answer to a command.
struct Host_Event {
  std::string kind;      ///< stable name, for programs
  std::string text = {}; ///< for people; may have several lines, may be empty
  nlohmann::json fields = nlohmann::json::object();
  bool isAnswer = false; ///< to a command that the user has given
  bool isDetail = false; ///< told to people only when they ask for more
  bool isSample = false; ///< one of many measurements: for recordings only
  std::int64_t rawTime = Sys_Clock::RawMicroseconds();
};
