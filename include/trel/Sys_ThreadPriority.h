#pragma once

#include <trel/Trel_Export.h>

/// While it lives, the calling thread runs before those of ordinary programs, where the system permits that: on Linux
/// to root, and to users within the limit "rtprio". Elsewhere, and for a thread that has a real-time priority of its
/// own, nothing changes. Ends on the thread that it began on.
///
/// Not real-time-safe: two system calls.
class TREL_EXPORT Sys_ThreadPriority {
public:
  Sys_ThreadPriority();
  ~Sys_ThreadPriority();
  Sys_ThreadPriority(const Sys_ThreadPriority&) = delete;
  Sys_ThreadPriority& operator=(const Sys_ThreadPriority&) = delete;

private:
  bool mIsRaised = false;
};
