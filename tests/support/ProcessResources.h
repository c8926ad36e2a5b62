#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

// What an attack may cost, KiB. A sanitizer keeps freed memory for a while, 256 MiB at the most.
#if defined(__has_feature)
inline constexpr std::int64_t kMemoryLimit = __has_feature(address_sanitizer) ? 300 * 1024 : 32 * 1024;
#else
inline constexpr std::int64_t kMemoryLimit = 32 * 1024;
#endif

inline std::int64_t OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
}

inline std::int64_t ResidentKilobytes() {
  std::ifstream status("/proc/self/status");
  std::string word;
  while (status >> word && word != "VmRSS:") {
  }
  std::int64_t kilobytes = 0;
  status >> kilobytes;
  return kilobytes;
}
