#include "foundation/Sys_Process.h"

#include <utility>
#include <vector>

#if defined(_WIN32)

#include <windows.h>

std::int64_t Sys_Process::Identifier() { return GetCurrentProcessId(); }

bool Sys_Process::CanJoinWhenUnloaded() { return false; }

void Sys_Process::ThreadsHaveStarted() {
  static const char sPlace = 0;
  HMODULE module = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                     reinterpret_cast<LPCWSTR>(&sPlace), &module);
}

#else

#include <atomic>

#include <pthread.h>
#include <unistd.h>

#if defined(__GLIBC__) // asks the kernel each time, and forgets the handlers of a library that is unloaded

namespace {

std::atomic<std::int64_t> sIdentifier = 0;

void RememberIdentifier() { sIdentifier.store(getpid(), std::memory_order_relaxed); }

} // namespace

std::int64_t Sys_Process::Identifier() {
  static const bool sIsFollowed = [] {
    const bool isFollowed = pthread_atfork(nullptr, nullptr, &RememberIdentifier) == 0;
    RememberIdentifier();
    return isFollowed;
  }();
  return sIsFollowed ? sIdentifier.load(std::memory_order_relaxed) : getpid();
}

#else

std::int64_t Sys_Process::Identifier() { return getpid(); }

#endif

bool Sys_Process::CanJoinWhenUnloaded() { return true; }

void Sys_Process::ThreadsHaveStarted() {}

#endif

void Sys_Process::Abandon(std::shared_ptr<const void> inherited) {
  static auto* const abandoned = new std::vector<std::shared_ptr<const void>>;
  abandoned->push_back(std::move(inherited)); // without a lock: a child has one thread
}
