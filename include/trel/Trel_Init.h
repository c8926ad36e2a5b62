#pragma once

#include <trel/Trel_Export.h>

/// Start-up of the library.
class TREL_EXPORT Trel_Init {
public:
  /// Prepares platform support (reads the options file), sockets and clock, takes the command numbering from the
  /// start-up options, and binds the trace library of the installation if there is one. The first call does so, later
  /// ones wait for it and do nothing. Call it before Trel_CommManager::Initialize, before anything reads the clock, and
  /// before handlers are registered.
  ///
  /// Thread-safe. Not real-time-safe: reads files and environment, and may load a library.
  static void Init();
};
