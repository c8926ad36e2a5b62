#pragma once

#include <cstddef>
#include <span>

/// Memory for a secret: not swapped out, and left out of core dumps, where the operating system grants that. Wiped in
/// the end.
///
/// Takes a page, so for few and lasting secrets.
class Sys_SecretMemory {
public:
  /// Throws std::bad_alloc.
  explicit Sys_SecretMemory(std::size_t size);
  ~Sys_SecretMemory();
  Sys_SecretMemory(const Sys_SecretMemory&) = delete;
  Sys_SecretMemory& operator=(const Sys_SecretMemory&) = delete;

  std::span<std::byte> Bytes() { return mBytes; }
  std::span<const std::byte> Bytes() const { return mBytes; }

private:
  std::span<std::byte> mBytes;
};
