#pragma once

#include "foundation/Sys_SecretMemory.h"
#include "tcpe/protocol/TCPE_Hello.h"

#include <array>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <span>
#include <string_view>

/// A key for HMAC-SHA-256: the one that the shared secret gives, or one that was derived from it.
///
/// The labels keep the uses of one key apart: what was made under one label proves nothing under another.
/// All operations are thread-safe.
class TCPE_AuthenticationKey {
public:
  static constexpr std::size_t kSize = 32;
  using Mac = std::array<std::byte, kSize>;
  /// What is authenticated, one part after the other. Parts of variable length have their length told by another.
  using Parts = std::initializer_list<std::span<const std::byte>>;

  explicit TCPE_AuthenticationKey(const Mac& bytes);

  /// The key of a shared secret, by scrypt: takes 16 MiB and some 50 ms, so do it once. Null when that fails.
  static std::shared_ptr<const TCPE_AuthenticationKey> FromSecret(std::span<const std::byte> secret);
  /// A key of its own for one use.
  std::unique_ptr<const TCPE_AuthenticationKey> Derive(std::string_view label, Parts parts) const;

  /// HMAC of the label, a zero byte and the parts; of the parts alone when there is no label. Should the cryptographic
  /// library fail, it is a random number, which nobody accepts.
  Mac MakeMac(std::string_view label, Parts parts) const;
  /// Whether `mac`, or its first bytes if `mac` is shorter, is that HMAC. In constant time.
  bool Verify(std::string_view label, Parts parts, std::span<const std::byte> mac) const;

  /// A random number that was never used before.
  static TCPE_Hello::Nonce MakeNonce();

private:
  Sys_SecretMemory mBytes;
};
