#pragma once

#include "tools/trel/common/Output_Buffer.h"

#include <chrono>
#include <ostream>
#include <string>

/// A file to write, which says why it cannot be written.
class Output_File : public std::ostream {
public:
  /// Replaces a file that exists.
  /// @throws std::runtime_error when it cannot be written
  explicit Output_File(std::string name, Output_Buffer::OnFailure onFailure = {},
                       std::chrono::milliseconds patience = Output_Buffer::kForever);
  ~Output_File() override;
  Output_File(const Output_File&) = delete;
  Output_File& operator=(const Output_File&) = delete;

  /// @throws std::runtime_error when not all of it has been written
  void Close();
  /// "cannot write FILE: why"; empty while all has been written.
  std::string Problem() const;
  /// Takes nothing more, for that reason.
  void Fail(const std::string& reason) { mBuffer.Fail(reason); }

private:
  const std::string mName;
  int mDescriptor;
  Output_Buffer mBuffer;
};
