#include "foundation/Sys_SecretMemory.h"

#include "foundation/Sys_Wipe.h"

#include <new>

#if defined(_WIN32)

#include <windows.h>

Sys_SecretMemory::Sys_SecretMemory(std::size_t size) {
  void* const memory = VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  VirtualLock(memory, size);
  mBytes = {static_cast<std::byte*>(memory), size};
}

Sys_SecretMemory::~Sys_SecretMemory() {
  Sys_Wipe(mBytes);
  VirtualFree(mBytes.data(), 0, MEM_RELEASE);
}

#else

#include <sys/mman.h>

Sys_SecretMemory::Sys_SecretMemory(std::size_t size) {
  void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    throw std::bad_alloc();
  }
  static_cast<void>(mlock(memory, size)); // a user may lock little; without that it is as good as any other memory
#if defined(MADV_DONTDUMP)
  static_cast<void>(madvise(memory, size, MADV_DONTDUMP));
#endif
  mBytes = {static_cast<std::byte*>(memory), size};
}

Sys_SecretMemory::~Sys_SecretMemory() {
  Sys_Wipe(mBytes);
  munmap(mBytes.data(), mBytes.size());
}

#endif
