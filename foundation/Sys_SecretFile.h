#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string>

/// A secret that stands in a file which nobody but its owner can read or write. Wiped from memory when destroyed.
class Sys_SecretFile {
public:
  static constexpr std::size_t kMinSize = 16;
  static constexpr std::size_t kMaxSize = 1024;

  /// Reads a regular file; blocks for as long as that takes.
  explicit Sys_SecretFile(const std::string& path);
  ~Sys_SecretFile();
  Sys_SecretFile(const Sys_SecretFile&) = delete;
  Sys_SecretFile& operator=(const Sys_SecretFile&) = delete;

  /// What makes the file unusable, a sentence in words with its name; empty when there is a secret.
  const std::string& Fault() const { return mFault; }
  /// Without the ends of line behind it.
  std::span<const std::byte> Secret() const { return std::span(mBytes).first(mSize); }

private:
  /// An end of line may follow the secret, and one byte more shows that the file is too long.
  std::array<std::byte, kMaxSize + 3> mBytes{};
  std::size_t mSize = 0;
  std::string mFault;
};
