#pragma once

#include "tests/support/Sanitized.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <tuple>

#include <dlfcn.h>
#include <pthread.h>
#include <sys/prctl.h>

/// Tells whether a call allocates, frees, takes a lock or calls the operating system. To be included in one source file
/// of a program, for which it replaces the functions that do so. Sanitizers do all of that of their own accord.
#if defined(__GLIBC__) && defined(PR_SET_SYSCALL_USER_DISPATCH) && !TREL_IS_SANITIZED

namespace RealTimeWatch {

constinit inline thread_local bool tIsOn = false;
constinit inline thread_local const char* tFound = nullptr;
constinit inline thread_local volatile char tSelector = SYSCALL_DISPATCH_FILTER_ALLOW;

inline void Found(const char* what) {
  if (tIsOn) {
    tFound = what;
  }
}

/// The function of that name which this program's own one hides.
class Hidden {
public:
  explicit constexpr Hidden(const char* name) : mName(name) {}
  int operator()(pthread_mutex_t* mutex) {
    if (mFunction.load() == nullptr) {
      mFunction = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, mName));
    }
    return mFunction.load()(mutex);
  }

private:
  using Function = int(pthread_mutex_t*);
  const char* const mName;
  std::atomic<Function*> mFunction = nullptr;
};
constinit inline Hidden sLock("pthread_mutex_lock");
constinit inline Hidden sTryLock("pthread_mutex_trylock");

/// What a call did last that it must not, or nothing.
template <class Call>
std::string In(const Call& call) {
  tFound = nullptr;
  tIsOn = true;
  tSelector = SYSCALL_DISPATCH_FILTER_BLOCK;
  call();
  tSelector = SYSCALL_DISPATCH_FILTER_ALLOW;
  tIsOn = false;
  return tFound != nullptr ? tFound : "";
}

/// Whether there is a watch on this machine, and a clock that can be read without a system call.
inline bool IsAvailable() {
  struct sigaction action = {};
  action.sa_handler = [](int /*signal*/) {
    tSelector = SYSCALL_DISPATCH_FILTER_ALLOW; // first of all: the handler's return is such a call too
    Found("a system call");
  };
  return sigaction(SIGSYS, &action, nullptr) == 0 &&
         prctl(PR_SET_SYSCALL_USER_DISPATCH, PR_SYS_DISPATCH_ON, 0L, 0L, &tSelector) == 0 &&
         In([] { std::ignore = std::chrono::steady_clock::now(); }).empty();
}

} // namespace RealTimeWatch

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);

void* malloc(std::size_t size) noexcept {
  RealTimeWatch::Found("an allocation");
  return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) noexcept {
  RealTimeWatch::Found("an allocation");
  return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) noexcept {
  RealTimeWatch::Found("an allocation");
  return __libc_realloc(block, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  RealTimeWatch::Found("an allocation");
  return __libc_memalign(alignment, size);
}
void free(void* block) noexcept {
  RealTimeWatch::Found("a deallocation");
  __libc_free(block);
}
int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  RealTimeWatch::Found("a lock");
  return RealTimeWatch::sLock(mutex);
}
int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept {
  RealTimeWatch::Found("a lock");
  return RealTimeWatch::sTryLock(mutex);
}
}

#else

namespace RealTimeWatch {

inline bool IsAvailable() { return false; }
template <class Call>
std::string In(const Call& call) {
  call();
  return "";
}

} // namespace RealTimeWatch

#endif
