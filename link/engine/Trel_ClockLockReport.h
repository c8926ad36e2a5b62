#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <optional>
#include <utility>

/// Who was told of the clock lock last, and who has to be told now.
///
/// One caller at a time looks and tells. Others that come meanwhile leave their report to it, and it looks again before
/// it returns: so what a system is told last is the latest, from however many threads the host idles, and no lock is
/// held while somebody is told.
class Trel_ClockLockReport {
public:
  struct State {
    bool isLocked = false;
    /// The connected systems, each with the number of its connection: one that has left and come back has another.
    std::map<std::uint32_t, std::uint64_t> connections;

    bool operator==(const State& other) const = default;
  };

  /// Makes the next report go out in any case.
  void Forget() { mIsForgotten = true; }

  /// `look` gives the state, or none when there is nothing to report; `tell` is given the lock and an address, in
  /// ascending order.
  template <class Look, class Tell>
  void Run(Look look, Tell tell) {
    if (mCallers++ != 0) {
      return;
    }
    try {
      std::uint32_t callers = 0;
      do {
        callers = mCallers;
        if (mIsForgotten.exchange(false)) {
          mLastState.reset();
        }
        RunOnce(look(), tell);
      } while (!mCallers.compare_exchange_strong(callers, 0));
    } catch (...) {
      mCallers = 0;
      throw;
    }
  }

private:
  template <class Tell>
  void RunOnce(std::optional<State> state, Tell& tell) {
    if (!state || mLastState == state) {
      return;
    }
    mLastState = std::move(state);
    for (const auto& [address, connection] : mLastState->connections) {
      tell(mLastState->isLocked, address);
    }
  }

  std::atomic<std::uint32_t> mCallers = 0; ///< since the one that is at it looked last, itself included
  std::atomic<bool> mIsForgotten = false;
  std::optional<State> mLastState; ///< of the one that is at it
};
