#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

/// The first bytes of a connection, sent by both sides at once:
/// "TREL", version 1, protocol major version, flags (1: authentication required), 0, instance, nonce.
struct TCPE_Hello {
  static constexpr std::size_t kSize = 32;
  using Nonce = std::array<std::byte, 16>;

  std::uint8_t majorVersion = 0;
  bool authenticationRequired = false;
  /// Random number of the engine that runs at the other end: a system that was restarted has another one.
  std::uint64_t instance = 0;
  Nonce nonce{};

  void Write(std::byte* target) const;
  /// Nothing when the bytes are no hello.
  static std::optional<TCPE_Hello> Read(std::span<const std::byte, kSize> source);
};
