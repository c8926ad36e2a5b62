#pragma once

#include "tcpe/protocol/TCPE_Limits.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

/// What of one peer waits for the host's handlers.
class TCPE_QueueLoad {
public:
  enum class Kind : std::uint8_t {
    command, ///< asynchronous; always taken, for the peer is not read while there are too many
    query,   ///< synchronous; refused when there are too many
    notice,  ///< connect, disconnect, a network error: what bounds them is that a peer must be admitted before
  };

  void Add(Kind kind, std::size_t bytes) {
    Of(kind).entries += 1;
    Of(kind).bytes += bytes;
  }
  void Remove(Kind kind, std::size_t bytes) {
    Of(kind).entries -= 1;
    Of(kind).bytes -= bytes;
  }
  TCPE_QueueLoad& operator+=(const TCPE_QueueLoad& other) {
    for (std::size_t kind = 0; kind < mShares.size(); ++kind) {
      mShares[kind].entries += other.mShares[kind].entries;
      mShares[kind].bytes += other.mShares[kind].bytes;
    }
    return *this;
  }
  std::size_t Entries() const { return mShares[0].entries + mShares[1].entries + mShares[2].entries; }
  std::size_t Queries() const { return Of(Kind::query).entries; }

  /// Whether the peer should not be admitted now.
  bool IsFull(const TCPE_Limits& limits) const {
    return Entries() >= limits.maxQueuedCommands || Of(Kind::command).bytes >= limits.maxQueuedBytes;
  }
  bool HasRoomForQuery(const TCPE_Limits& limits) const {
    return Queries() < limits.maxQueuedQueries && Of(Kind::query).bytes < limits.maxQueuedQueryBytes;
  }
  /// More than a peer that keeps to its credit can have sent, unless its commands are large.
  bool IsOverfull(const TCPE_Limits& limits, std::size_t times = 1) const {
    const Share& commands = Of(Kind::command);
    return commands.entries > times * limits.maxQueuedCommands || commands.bytes > times * limits.maxQueuedBytes;
  }
  /// Less than that by so much that it pays to read on.
  bool HasRoomAgain(const TCPE_Limits& limits) const {
    const Share& commands = Of(Kind::command);
    return commands.entries <= limits.maxQueuedCommands / 4 * 3 && commands.bytes <= limits.maxQueuedBytes / 4 * 3;
  }

private:
  friend class TCPE_SharedQueueLoad;
  struct Share {
    std::size_t entries = 0;
    std::size_t bytes = 0;
  };
  Share& Of(Kind kind) { return mShares[static_cast<std::size_t>(kind)]; }
  const Share& Of(Kind kind) const { return mShares[static_cast<std::size_t>(kind)]; }

  std::array<Share, 3> mShares;
};

/// A load that one thread tells and others read.
class TCPE_SharedQueueLoad {
public:
  void Set(const TCPE_QueueLoad& load) {
    for (std::size_t kind = 0; kind < mShares.size(); ++kind) {
      mShares[kind].entries.store(load.mShares[kind].entries, std::memory_order_relaxed);
      mShares[kind].bytes.store(load.mShares[kind].bytes, std::memory_order_relaxed);
    }
  }
  TCPE_QueueLoad Get() const {
    TCPE_QueueLoad load;
    for (std::size_t kind = 0; kind < mShares.size(); ++kind) {
      load.mShares[kind].entries = mShares[kind].entries.load(std::memory_order_relaxed);
      load.mShares[kind].bytes = mShares[kind].bytes.load(std::memory_order_relaxed);
    }
    return load;
  }

private:
  struct Share {
    std::atomic<std::size_t> entries = 0;
    std::atomic<std::size_t> bytes = 0;
  };

  std::array<Share, 3> mShares;
};
