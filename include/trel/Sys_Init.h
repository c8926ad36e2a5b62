#pragma once

#include <trel/Trel_Export.h>

/// Start-up of the platform.
class TREL_EXPORT Sys_Init {
public:
  /// Finds out whether the platform has what the library builds on, a steady clock of microseconds and a source of
  /// random numbers, and reports an assertion for what is missing. Only the first call does so.
  ///
  /// Thread-safe. Not real-time-safe.
  static void PlatformInit();
};
