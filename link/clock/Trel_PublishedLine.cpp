#include "link/clock/Trel_PublishedLine.h"

#include <thread>

std::optional<Trel_PublishedLine::Line> Trel_PublishedLine::Read() {
  Slot& slot = mSlots[mEntrance.fetch_add(1, std::memory_order_acquire) >> kCountBits];
  const std::optional<Line> line = slot.mLine;
  slot.mLeft.fetch_add(1, std::memory_order_release);
  return line;
}

void Trel_PublishedLine::Publish(const std::optional<Line>& line) {
  const std::size_t next = FindFreeSlot();
  mSlots[next].mLine = line;
  mSlots[next].mLeft.store(0, std::memory_order_relaxed);

  const std::uint64_t previous =
      mEntrance.exchange(static_cast<std::uint64_t>(next) << kCountBits, std::memory_order_acq_rel);
  mSlots[mSlotInForce].mEntered = previous & ((std::uint64_t{1} << kCountBits) - 1);
  mSlotInForce = next;
}

std::size_t Trel_PublishedLine::FindFreeSlot() const {
  for (;;) {
    for (std::size_t i = 0; i < kSlots; ++i) {
      if (i != mSlotInForce && mSlots[i].mLeft.load(std::memory_order_acquire) == mSlots[i].mEntered) {
        return i;
      }
    }
    std::this_thread::yield();
  }
}
