#pragma once

#include "tools/trel/common/LineBuffer.h"

#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

/// A child process as its parent sees it: lines go to its standard input and come from its standard output.
///
/// The child stands in a process group of its own, so that Ctrl-C on the terminal reaches the parent alone. Destroying
/// the object kills a child that still runs.
class Demo_Process {
public:
  /// @throws std::system_error when the process cannot be started
  explicit Demo_Process(std::vector<std::string> arguments);
  ~Demo_Process();
  Demo_Process(const Demo_Process&) = delete;
  Demo_Process& operator=(const Demo_Process&) = delete;

  pid_t Id() const { return mId; }
  /// For poll: readable when there is output or the child has closed it. -1 once it is closed.
  int OutputDescriptor() const { return mOutput; }
  /// Takes what has been written, without waiting. At the end of the output closes it.
  void ReadAvailable();
  std::optional<std::string> TakeLine() { return mLines.TakeLine(); }
  /// Without waiting; lost when the child does not read.
  void Send(const std::string& text) const;

  /// Whether it has ended; does not wait.
  bool HasEnded();
  void Kill();
  /// Of an ended child: whether it ended by itself with status 0, and how it ended in words.
  bool Succeeded() const { return mStatus == 0; }
  std::string EndText() const;

private:
  pid_t mId = -1;
  int mInput = -1;
  int mOutput = -1;
  std::optional<int> mStatus;
  LineBuffer mLines;
};
