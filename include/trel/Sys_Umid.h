#pragma once

#include <trel/Trel_Export.h>

#include <cstdint>

/// Random identifiers, from the random number generator of the operating system: unpredictable, and different on every
/// call and in every process but for chance. Secrets are not made here.
///
/// Should the operating system refuse, an assertion is reported and the identifier is made from the clock and a
/// counter: then it is still new, but can be guessed.
class TREL_EXPORT Sys_Umid {
public:
  /// Any 64-bit number. Thread-safe. Not real-time-safe: a system call.
  static std::uint64_t Random64();

  /// 1 to 2^31 - 1. Thread-safe. Not real-time-safe: a system call.
  static std::int32_t RandomPositive31();
};
