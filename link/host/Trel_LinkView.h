#pragma once

#include "link/host/Trel_ControlState.h"

#include <trel/Trel_System.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <vector>

/// What the host may ask a session at any time: who is in the link, and who is in control. Thread-safe.
class Trel_LinkView {
public:
  void SetSystems(std::vector<Trel_System> systems, std::set<std::uint32_t> linked, bool isLinked);
  std::vector<Trel_System> GetSystems() const;
  std::set<std::uint32_t> GetLinkedAddresses() const;
  bool IsLinked() const;

  /// Calls a function with the state of control, and wakes who waits for it.
  template <class Function>
  auto WithControl(Function function) {
    const std::lock_guard lock(mMutex);
    mChanged.notify_all();
    return function(mControl);
  }
  /// Waits until a predicate of the state of control holds; false when it does not in time.
  template <class Predicate>
  bool WaitForControl(std::int64_t microseconds, Predicate predicate) {
    std::unique_lock lock(mMutex);
    return mChanged.wait_for(lock, std::chrono::microseconds(microseconds), [&] { return predicate(mControl); });
  }

private:
  mutable std::mutex mMutex;
  std::condition_variable mChanged;
  std::vector<Trel_System> mSystems;
  std::set<std::uint32_t> mLinked;
  bool mIsLinked = false;
  Trel_ControlState mControl;
};
