#pragma once

#include <trel/Trel_LinearCorrelator.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>

/// The line in force, handed from one writer at a time to any number of readers that never wait, repeat or take a lock.
///
/// A reader enters with one atomic addition, which names the slot in force and counts the reader into it at once; it
/// copies the slot and counts itself out again. The writer fills a slot that every reader has left and then puts it in
/// force. It would have to wait only if readers were suspended in the middle of a copy in each of the other slots.
class Trel_PublishedLine {
public:
  using Line = Trel_LinearCorrelator::Line;

  constexpr Trel_PublishedLine() = default;

  /// What was published last; nothing at first. Wait-free.
  std::optional<Line> Read();

  /// Callers take turns.
  void Publish(const std::optional<Line>& line);

private:
  static constexpr std::size_t kSlots = 32;
  static constexpr unsigned kCountBits = 56;

  struct Slot {
    std::optional<Line> mLine;
    std::uint64_t mEntered = 0; // readers counted in while it was in force; the writer's
    std::atomic<std::uint64_t> mLeft{0};
  };

  std::size_t FindFreeSlot() const;

  std::array<Slot, kSlots> mSlots;
  std::size_t mSlotInForce = 0; // the writer's
  // Index of the slot in force above the number of readers that have entered it.
  std::atomic<std::uint64_t> mEntrance{0};
};
