#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// What a running host tells of the clock. Times are microseconds, signs as in Trel_ClockStatus.
struct Status_Clock {
  std::string state = {}; ///< in words, as the reason
  std::string reason = {};
  bool isLocked = false;
  std::optional<std::int64_t> bound = {}; ///< of the error of the running time; nothing when nobody can give one
  std::optional<double> offset = {};
  std::optional<double> rate = {};      ///< ppm
  std::optional<std::int64_t> age = {}; ///< of the newest measurement
  std::int64_t measurements = 0;
  std::int64_t span = 0;
  double deviation = 0.0;
  std::int64_t lastRoundTrip = 0;
  std::int64_t smallestRoundTrip = 0;
  std::int64_t roundTripLimit = 0;
  std::int64_t accepted = 0;
  std::int64_t notVouchedFor = 0;
  std::int64_t roundTripTooLong = 0;
  std::int64_t jumps = 0;
  std::int64_t lastJump = 0;
};
