#include "tcpe/engine/TCPE_BlockStore.h"

#include <utility>

TCPE_BlockStore::~TCPE_BlockStore() {
  ReleaseAll(mTaken);
  ReleaseAll(mGiven);
}

void* TCPE_BlockStore::Take() {
  if (mTaken == nullptr) {
    mTaken = mGiven.exchange(nullptr, std::memory_order_acquire);
    std::size_t kept = 1;
    for (Free* free = mTaken; free != nullptr; free = free->next) {
      if (kept++ == kKept) {
        ReleaseAll(std::exchange(free->next, nullptr));
      }
    }
  }
  if (mTaken == nullptr) {
    return TakeNew();
  }
  Free* const next = mTaken->next;
#if defined(__GNUC__)
  __builtin_prefetch(next, 1); // the core that gave it back has written to it
#endif
  return std::exchange(mTaken, next);
}

void TCPE_BlockStore::Give(void* block) {
  Free* const free = new (block) Free{mGiven.load(std::memory_order_relaxed)};
  while (!mGiven.compare_exchange_weak(free->next, free, std::memory_order_release, std::memory_order_relaxed)) {
  }
}

void TCPE_BlockStore::ReleaseAll(Free* first) {
  while (first != nullptr) {
    Release(std::exchange(first, first->next));
  }
}
