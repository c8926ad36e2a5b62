#include <trel/Sys_ThreadPriority.h>

#if defined(_WIN32)

#include <windows.h>

Sys_ThreadPriority::Sys_ThreadPriority()
    : mIsRaised(GetThreadPriority(GetCurrentThread()) == THREAD_PRIORITY_NORMAL &&
                SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_TIME_CRITICAL) != 0) {}

Sys_ThreadPriority::~Sys_ThreadPriority() {
  if (mIsRaised) {
    SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_NORMAL);
  }
}

#else

#include <pthread.h>
#include <sched.h>

namespace {

bool SetPolicy(int policy) {
  sched_param parameters = {};
  parameters.sched_priority = sched_get_priority_min(policy);
  return pthread_setschedparam(pthread_self(), policy, &parameters) == 0;
}

} // namespace

Sys_ThreadPriority::Sys_ThreadPriority() {
  int policy = SCHED_OTHER;
  sched_param parameters = {};
  mIsRaised = pthread_getschedparam(pthread_self(), &policy, &parameters) == 0 && policy == SCHED_OTHER &&
              SetPolicy(SCHED_FIFO);
}

Sys_ThreadPriority::~Sys_ThreadPriority() {
  if (mIsRaised) {
    SetPolicy(SCHED_OTHER);
  }
}

#endif
