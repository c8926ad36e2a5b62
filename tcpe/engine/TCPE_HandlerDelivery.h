#pragma once

#include "tcpe/engine/TCPE_Delivery.h"
#include "tcpe/engine/TCPE_HandlerPool.h"

/// Commands run their handlers on threads of the engine's.
class TCPE_HandlerDelivery final : public TCPE_Delivery {
public:
  TCPE_HandlerDelivery(const TCPE_Limits& limits, TCPE_CommManager::NetworkErrorProc onNetworkError)
      : mPool(std::make_shared<TCPE_HandlerPool>(limits)), mOnNetworkError(onNetworkError) {}

  void Start(std::shared_ptr<void> engine) override { mPool->Start(std::move(engine)); }
  void Stop(std::int64_t timeout) override { mPool->Stop(timeout); }
  TCPE_QueueLoad Deliver(std::uint32_t address, TCPE_JobList received) override {
    return mPool->Submit(address, std::move(received));
  }
  void DeliverError(ETCPE_NetworkError error, std::uint32_t address) override;
  bool IsFull(std::uint32_t address) const override { return mPool->IsFull(address); }
  TCPE_QueueLoad GetQueueLoad(std::uint32_t address) const override { return mPool->GetQueueLoad(address); }
  TCPE_HandlerLoad GetLoad(std::uint32_t address) const override { return mPool->GetLoad(address); }
  bool TakesUnhandled() const override { return false; }
  bool MayWaitHere() const override { return true; }
  bool IsOnOwnThread() const override { return mPool->IsOnHandlerThread(); }
  TCPE_Command* Take() override { return nullptr; }
  TCPE_ReceivedCommand::Pointer Return(TCPE_Command* /*command*/) override { return nullptr; }

private:
  const std::shared_ptr<TCPE_HandlerPool> mPool;
  const TCPE_CommManager::NetworkErrorProc mOnNetworkError;
};
