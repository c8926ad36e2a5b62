#pragma once

#include <atomic>
#include <cstddef>
#include <new>

/// Memory for received commands, used again and again.
class TCPE_BlockStore {
public:
  /// What most commands take of a block.
  static constexpr std::size_t kUsualSize = 256;

  explicit TCPE_BlockStore(std::size_t size) : mSize(size) {}
  ~TCPE_BlockStore();
  TCPE_BlockStore(const TCPE_BlockStore&) = delete;
  TCPE_BlockStore& operator=(const TCPE_BlockStore&) = delete;

  std::size_t Size() const { return mSize; }
  /// A block, aligned for everything. One thread at a time.
  void* Take();
  /// From any thread.
  void Give(void* block);

  /// A block that has not been used, for a thread that does not take others; it is not given back.
  void* TakeNew() const { return ::operator new(mSize); }
  static void Release(void* block) { ::operator delete(block); }

private:
  struct Free {
    Free* next;
  };
  /// Beyond so many blocks are not kept; a few more when they are taken meanwhile.
  static constexpr std::size_t kKept = 1024;

  static void ReleaseAll(Free* first);

  const std::size_t mSize;
  Free* mTaken = nullptr; ///< of those given back; the taking thread's own
  alignas(64) std::atomic<Free*> mGiven = nullptr;
  std::atomic<std::size_t> mGivenCount = 0;
};
