#pragma once

#include "tools/trel/common/LineBuffer.h"
#include "tools/trel/common/SignalPipe.h"

#include <chrono>
#include <string>

/// Reads lines from standard input, until it ends or a signal asks the program to end.
class Host_Input {
public:
  enum class Outcome { line, lineTooLong, end, signalled };

  /// Blocks. A last line without an end counts as a line.
  Outcome ReadLine(std::string* line);
  /// Waits for a time; false, at once, when a signal has come.
  bool Pause(std::chrono::milliseconds time);
  /// The signal that has come, or 0.
  int Signal() const { return mSignal; }
  /// Whether somebody types the lines.
  static bool IsTerminal();
  /// ... and reads the answers.
  static bool HasPrompt();

private:
  static constexpr std::size_t kLongestLine = 4096;

  SignalPipe mSignals;
  LineBuffer mLines;
  int mSignal = 0;
  bool mIsAtEnd = false;
  bool mSkips = false; // the rest of a line that is too long
};
