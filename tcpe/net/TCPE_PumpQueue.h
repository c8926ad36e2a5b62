#pragma once

#include "tcpe/net/TCPE_Dispatcher.h"
#include "tcpe/protocol/TCPE_Limits.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

/// With host-pumped delivery: what waits for the host, in the order in which it came, and what it has in hand.
/// Thread-safe.
class TCPE_PumpQueue {
public:
  using ReceivedPointer = TCPE_Dispatcher::ReceivedPointer;

  TCPE_PumpQueue(const TCPE_Limits& limits, TCPE_CommManager::NetworkErrorProc onNetworkError)
      : mLimits(limits), mOnNetworkError(onNetworkError) {}

  /// False when the peer has too much waiting. A command that must not be lost is queued all the same.
  /// @param bytes memory that the command holds
  bool Push(const ReceivedPointer& received, std::size_t bytes, bool mustNotBeLost);
  void PushError(ETCPE_NetworkError error, std::uint32_t address);
  /// Whether a peer has as much waiting as it may, or has nothing waiting and too many others have.
  bool IsFull(std::uint32_t address) const;
  TCPE_HandlerLoad GetLoad(std::uint32_t address) const;

  /// The next command, now in the host's hand; null when there is none. Network errors before it are reported.
  TCPE_Command* Take();
  /// Takes a command back from the host; null when it has no such command in hand.
  ReceivedPointer Return(TCPE_Command* command);
  /// Whether this thread has a command in hand, or runs the callback.
  bool IsInHandOfThisThread() const;

  /// Drops what waits, and gives the host `timeout` microseconds to return what it has in hand. What it keeps longer
  /// becomes an orphan.
  void Stop(std::int64_t timeout);
  static void ReturnOrphan(TCPE_Command* command);

private:
  struct Waiting {
    std::uint32_t address = 0;
    ReceivedPointer command{};
    std::size_t bytes = 0;
    ETCPE_NetworkError error = eNetworkError_None;
  };
  struct Load {
    std::size_t entries = 0;
    std::size_t bytes = 0;
  };
  struct InHand {
    ReceivedPointer command;
    std::thread::id thread;
  };

  bool IsFull(const Load& load) const {
    return load.entries >= mLimits.maxQueuedCommands || load.bytes >= mLimits.maxQueuedBytes;
  }
  void PushLocked(Waiting waiting);

  const TCPE_Limits& mLimits;
  const TCPE_CommManager::NetworkErrorProc mOnNetworkError;
  mutable std::mutex mMutex;
  std::condition_variable mReturned;
  std::deque<Waiting> mWaiting;
  std::map<std::uint32_t, Load> mLoads;
  std::map<TCPE_Command*, InHand> mInHand;
  std::thread::id mReportingThread;
};
