#include "tcpe/engine/TCPE_BlockStore.h"

#include <new>
#include <utility>

TCPE_BlockStore::~TCPE_BlockStore() {
  Release(mTaken);
  Release(mGiven);
}

void* TCPE_BlockStore::Take() {
  if (mTaken == nullptr) {
    mTaken = mGiven.exchange(nullptr, std::memory_order_acquire);
    std::size_t kept = 1;
    for (Free* free = mTaken; free != nullptr; free = free->next) {
      if (kept++ == kKept) {
        Release(std::exchange(free->next, nullptr));
      }
    }
  }
  if (mTaken == nullptr) {
    return ::operator new(mSize);
  }
  return std::exchange(mTaken, mTaken->next);
}

void TCPE_BlockStore::Give(void* block) {
  Free* const free = new (block) Free{mGiven.load(std::memory_order_relaxed)};
  while (!mGiven.compare_exchange_weak(free->next, free, std::memory_order_release, std::memory_order_relaxed)) {
  }
}

void TCPE_BlockStore::Release(Free* first) {
  while (first != nullptr) {
    ::operator delete(std::exchange(first, first->next));
  }
}
