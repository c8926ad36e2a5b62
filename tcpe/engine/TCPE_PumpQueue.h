#pragma once

#include "tcpe/engine/TCPE_Delivery.h"
#include "tcpe/protocol/TCPE_Limits.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

/// Commands wait for a host that pumps, in the order in which they came; what it has in hand is remembered.
class TCPE_PumpQueue final : public TCPE_Delivery {
public:
  TCPE_PumpQueue(const TCPE_Limits& limits, TCPE_CommManager::NetworkErrorProc onNetworkError);

  void Start(std::shared_ptr<void> /*engine*/) override {}
  /// What threads of the host keep longer, and what this thread has in hand, becomes an orphan.
  void Stop(std::int64_t timeout) override;
  TCPE_QueueLoad Deliver(std::uint32_t address, TCPE_JobList received) override;
  void DeliverError(ETCPE_NetworkError error, std::uint32_t address) override;
  bool IsFull(std::uint32_t address) const override;
  TCPE_QueueLoad GetQueueLoad(std::uint32_t address) const override;
  TCPE_HandlerLoad GetLoad(std::uint32_t address) const override;
  bool TakesUnhandled() const override { return true; }
  /// Not where commands are taken: nobody would take those that have to be finished first.
  bool MayWaitHere() const override;
  bool IsOnOwnThread() const override { return sReporting == this; }
  /// Network errors that come before the command are reported.
  TCPE_Command* Take() override;
  TCPE_ReceivedCommand::Pointer Return(TCPE_Command* command) override;

  static void ReturnOrphan(TCPE_Command* command);

private:
  /// Either a command or an error.
  struct Waiting {
    std::uint32_t address = 0;
    TCPE_ReceivedCommand::Pointer command{};
    ETCPE_NetworkError error = eNetworkError_None;
  };
  struct InHand {
    TCPE_ReceivedCommand::Pointer command;
    std::thread::id thread;
  };

  static thread_local const TCPE_PumpQueue* sReporting;

  const TCPE_Limits& mLimits;
  const TCPE_CommManager::NetworkErrorProc mOnNetworkError;
  const std::uint64_t mNumber;
  mutable std::mutex mMutex;
  std::condition_variable mReturned;
  std::deque<Waiting> mWaiting;
  std::map<std::uint32_t, TCPE_QueueLoad> mLoads;
  std::map<TCPE_Command*, InHand> mInHand;
};
