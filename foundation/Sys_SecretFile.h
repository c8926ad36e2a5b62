#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string>

/// A secret, or two, each on a line of a file that nobody but its owner can read or write. Wiped from memory when
/// destroyed.
class Sys_SecretFile {
public:
  static constexpr std::size_t kMinSize = 16;
  static constexpr std::size_t kMaxSize = 1024;
  static constexpr std::size_t kMostSecrets = 2;

  /// Reads a regular file; blocks for as long as that takes.
  explicit Sys_SecretFile(const std::string& path);
  ~Sys_SecretFile();
  Sys_SecretFile(const Sys_SecretFile&) = delete;
  Sys_SecretFile& operator=(const Sys_SecretFile&) = delete;

  /// What makes the file unusable, a sentence in words with its name; empty when there is a secret.
  const std::string& Fault() const { return mFault; }
  std::span<const std::span<const std::byte>> Secrets() const { return std::span(mSecrets).first(mCount); }
  /// Whether one of them does not look like 256 random bits, that is 64 digits and letters a to f.
  bool IsMadeUp() const;

private:
  /// @return what is wrong with them
  std::string TakeApart(std::span<const std::byte> rest);

  /// Both with their ends of line, and one byte more, which shows that the file is too long.
  std::array<std::byte, kMostSecrets*(kMaxSize + 2) + 1> mBytes{};
  std::array<std::span<const std::byte>, kMostSecrets> mSecrets{};
  std::size_t mCount = 0;
  std::string mFault;
};
