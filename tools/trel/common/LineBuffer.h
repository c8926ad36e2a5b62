#pragma once

#include <cstddef>
#include <optional>
#include <string>

/// Takes bytes as they come and gives lines, without their ends.
class LineBuffer {
public:
  void Append(const char* bytes, std::size_t size) { mBytes.append(bytes, size); }
  std::optional<std::string> TakeLine();
  /// Bytes that wait for the end of their line.
  std::size_t Size() const { return mBytes.size(); }
  /// What there is, whether its line has ended or not.
  std::string TakeRest();

private:
  std::string mBytes;
};
