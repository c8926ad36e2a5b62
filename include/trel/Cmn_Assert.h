#pragma once

#include <trel/Trel_Export.h>

#include <cstdint>

/// Where broken invariants and wrong configuration are reported. A report never stops the program.
class TREL_EXPORT Cmn_Assert {
public:
  /// Takes one report. Called on the thread that found the fault, on several threads at once if need be; the text is
  /// valid during the call only. Exceptions that leave it are swallowed.
  using Sink = void (*)(const char* text, std::int32_t line);

  /// Reports text and source line when the condition is false, then goes on. By convention the text is the failed
  /// condition, "@$^$@" and the source file without its extension.
  ///
  /// Thread-safe, at any time. Real-time-safe while the condition holds; otherwise as much as the sink is.
  static void HandleMagicAssert(bool condition, const char* text, std::int32_t line) noexcept;

  /// Replaces the sink; null brings back the one of the start, which writes one line to standard error.
  ///
  /// Thread-safe and real-time-safe. A report that another thread has begun may still reach the old sink.
  static void SetSink(Sink sink) noexcept;
};
