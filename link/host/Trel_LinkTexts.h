#pragma once

#include <trel/TCPE_Types.h>
#include <trel/Trel_System.h>

#include <cstdint>
#include <string>

/// What a session says to the user. Thread-safe.
class Trel_LinkTexts {
public:
  /// "Studio B at 10.0.0.5", or the address alone.
  static std::string Name(const Trel_System& system);
  static std::string Name(std::uint32_t address);
  /// One line, whatever the names in it are: each control character becomes a question mark.
  static std::string Harmless(std::string text);
  /// "0.5 s"
  static std::string Seconds(std::int64_t microseconds);
  /// Why a system refused this one, or a connection is gone, and what to do about it; a sentence about `who`.
  static std::string NetworkError(ETCPE_NetworkError error, const std::string& who);
};
