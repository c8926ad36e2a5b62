#pragma once

#include "tcpe/net/TCPE_RoundTrips.h"

#include <trel/TCPE_Types.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

/// What is counted of a peer while commands pass: everybody counts, nobody waits. Thread-safe.
struct TCPE_PeerTraffic {
  using Counter = std::atomic<std::uint64_t>;
  /// Senders and the network thread do not share a cache line.
  struct alignas(64) Direction {
    Counter frames = 0;
    Counter bytes = 0;
    Counter commands = 0;
    /// Of what was received, by the handlers; how many of those that were sent follows from the others.
    alignas(64) Counter finished = 0;
    Counter refused = 0;
    Counter abandoned = 0;

    TCPE_TrafficCount Count() const {
      return {.frames = frames.load(std::memory_order_relaxed), .bytes = bytes.load(std::memory_order_relaxed)};
    }
    /// Without those in flight.
    TCPE_CommandCount CountCommands() const {
      return {.commands = commands.load(std::memory_order_relaxed),
              .finished = finished.load(std::memory_order_relaxed),
              .refused = refused.load(std::memory_order_relaxed),
              .abandoned = abandoned.load(std::memory_order_relaxed)};
    }
  };

  Direction sent;
  Direction received; ///< the network thread alone adds
  TCPE_RoundTrips roundTrips;
  std::array<Counter, std::tuple_size_v<decltype(TCPE_PeerSnapshot::errors)>> errors{};

  static void Add(Counter& counter, std::uint64_t count) { counter.fetch_add(count, std::memory_order_relaxed); }
  /// For the one thread that ever adds to this counter.
  static void AddAlone(Counter& counter, std::uint64_t count) {
    counter.store(counter.load(std::memory_order_relaxed) + count, std::memory_order_relaxed);
  }
  void AddError(TCPE_CommErr error) { Add(errors[error < errors.size() ? std::size_t{error} : 0], 1); }
};
