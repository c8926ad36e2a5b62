#pragma once

#include "tcpe/protocol/TCPE_AuthenticationKey.h"

#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

/// The frames of one direction of an authenticated connection: one end tags them, the other verifies. Both count, so a
/// frame that is replayed, missing or out of order has the wrong tag. One thread at a time.
class TCPE_FrameTagger {
public:
  explicit TCPE_FrameTagger(std::unique_ptr<const TCPE_AuthenticationKey> key) : mKey(std::move(key)) {}

  /// Bytes that complete frames take with their tags.
  static std::size_t TaggedSize(std::span<const std::byte> frames);
  /// Appends complete frames to `target`, each with its tag. They have to be sent, and in this order.
  void AppendTagged(std::span<const std::byte> frames, std::vector<std::byte>& target);
  /// Whether a complete frame with a tag is the next one of this direction; it then counts.
  bool TakeNext(std::span<const std::byte> taggedFrame);

private:
  std::unique_ptr<const TCPE_AuthenticationKey> mKey;
  std::uint64_t mCount = 0;
};
