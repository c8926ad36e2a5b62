#include "tcpe/engine/TCPE_BlockStore.h"

#include "foundation/Sys_Prefetch.h"

#include <utility>

TCPE_BlockStore::~TCPE_BlockStore() {
  ReleaseAll(mTaken);
  ReleaseAll(mGiven);
}

void* TCPE_BlockStore::Take() {
  if (mTaken == nullptr) {
    mTaken = mGiven.exchange(nullptr, std::memory_order_acquire);
    mGivenCount.store(0, std::memory_order_relaxed);
  }
  if (mTaken == nullptr) {
    return TakeNew();
  }
  Free* const taken = std::exchange(mTaken, mTaken->next);
  Sys_Prefetch(mTaken, kUsualSize); // the core that gave it back has written to it
  return taken;
}

void TCPE_BlockStore::Give(void* block) {
  if (mGivenCount.fetch_add(1, std::memory_order_relaxed) >= kKept) {
    Release(block);
    return;
  }
  Free* const free = new (block) Free{mGiven.load(std::memory_order_relaxed)};
  while (!mGiven.compare_exchange_weak(free->next, free, std::memory_order_release, std::memory_order_relaxed)) {
  }
}

void TCPE_BlockStore::ReleaseAll(Free* first) {
  while (first != nullptr) {
    Release(std::exchange(first, first->next));
  }
}
