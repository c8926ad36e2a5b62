#pragma once

#include <cstddef>

/// Has memory come to this core that it will need soon, and that others have written to or driven out. Without effect
/// but on speed; null is allowed.
inline void Sys_Prefetch([[maybe_unused]] const void* memory, [[maybe_unused]] std::size_t size) {
#if defined(__GNUC__)
  constexpr std::size_t kCacheLine = 64;
  for (std::size_t offset = 0; memory != nullptr && offset < size; offset += kCacheLine) {
    __builtin_prefetch(static_cast<const std::byte*>(memory) + offset);
  }
#endif
}
