#pragma once

#include "tools/trel/common/Output_Buffer.h"

#include <iostream>
#include <string>

/// Opens /dev/null in place of those of the descriptors 0 to 2 that are closed, so that no file, socket or pipe of the
/// program is taken for its input or its output. First of all.
void OpenStandardDescriptors();

/// The standard output of the program while the object lives: all that goes to std::cout. When it cannot be written,
/// the standard error says so at once, and the exit status in the end. One object a process.
class Output_Standard {
public:
  Output_Standard();
  ~Output_Standard();
  Output_Standard(const Output_Standard&) = delete;
  Output_Standard& operator=(const Output_Standard&) = delete;

  /// Writes what is left.
  /// @param exitStatus what the program has come to otherwise
  /// @return what it has come to, with its output
  int Finish(int exitStatus);

  /// Writes a line about the program to the standard error. Thread-safe.
  static void Say(const std::string& text);

private:
  Output_Buffer mBuffer;
  std::streambuf* const mBefore;
};
