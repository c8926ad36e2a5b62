#pragma once

#include <cstdint>
#include <memory>

/// What becomes of this library together with its process: a fork, the end, the unloading.
class Sys_Process {
public:
  /// Another one in a process that was forked from this one. There no thread but the one that forked exists, the locks
  /// of the others may be held for ever, and what is sent goes out on the sockets of the parent: a child must leave
  /// alone what is its parent's.
  static std::int64_t Identifier();

  /// Keeps what a child has inherited and must not destroy.
  static void Abandon(std::shared_ptr<const void> inherited);

  /// Whether threads can be joined while static objects are destroyed. Not on Windows, where unloading holds a lock
  /// that a thread needs to end, and where at the end of a process its threads are gone before.
  static bool CanJoinWhenUnloaded();
  /// Called once there are threads. Where they cannot be joined by the unloading, the library stays loaded from now on:
  /// they must not lose their code.
  static void ThreadsHaveStarted();
};
