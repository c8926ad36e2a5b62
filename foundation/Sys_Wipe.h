#pragma once

#include <cstddef>
#include <span>

/// Overwrites a secret that is needed no more; the compiler cannot leave it out.
inline void Sys_Wipe(std::span<std::byte> secret) {
  for (volatile std::byte& byte : secret) {
    byte = std::byte{0};
  }
}
