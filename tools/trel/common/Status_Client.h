#pragma once

#include "tools/trel/common/LineBuffer.h"

#include <string>

/// Reads what a running host tells of itself.
class Status_Client {
public:
  enum class Outcome { line, timedOut, ended };

  /// At a socket of Status_Directory.
  explicit Status_Client(std::string path);
  ~Status_Client();
  Status_Client(const Status_Client&) = delete;
  Status_Client& operator=(const Status_Client&) = delete;

  const std::string& Path() const { return mPath; }
  /// Connects, or does so again.
  bool Connect();
  /// For poll; -1 without a connection.
  int Descriptor() const { return mDescriptor; }
  /// The newest line that has arrived; older ones are left out. Does not wait.
  Outcome Read(std::string* line);
  /// Waits so long for a line.
  Outcome WaitFor(std::string* line, int milliseconds);

private:
  std::string mPath;
  int mDescriptor = -1;
  LineBuffer mLines;
};
