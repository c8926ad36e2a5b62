#include "tools/trel/common/LineBuffer.h"

#include <utility>

std::optional<std::string> LineBuffer::TakeLine() {
  const std::size_t end = mBytes.find('\n');
  if (end == std::string::npos) {
    return std::nullopt;
  }
  std::string line = mBytes.substr(0, end);
  mBytes.erase(0, end + 1);
  return line;
}

std::string LineBuffer::TakeRest() { return std::exchange(mBytes, {}); }
