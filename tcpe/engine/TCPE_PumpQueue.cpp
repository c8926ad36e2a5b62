#include "tcpe/engine/TCPE_PumpQueue.h"

#include "foundation/Cmn_HostCall.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <utility>

namespace {

/// Commands that hosts still had in hand when their engines ended. Never destroyed: a host may return one at any time.
struct Orphans {
  std::mutex mutex;
  std::map<TCPE_Command*, TCPE_ReceivedCommand::Pointer> commands;
};

Orphans& TheOrphans() {
  static auto* const orphans = new Orphans;
  return *orphans;
}

std::atomic<std::uint64_t> sLastNumber = 0;

/// Number of the queue that this thread has taken from last; 0: none.
thread_local std::uint64_t sPumped = 0;

} // namespace

thread_local const TCPE_PumpQueue* TCPE_PumpQueue::sReporting = nullptr;

TCPE_PumpQueue::TCPE_PumpQueue(const TCPE_Limits& limits, TCPE_CommManager::NetworkErrorProc onNetworkError)
    : mLimits(limits), mOnNetworkError(onNetworkError), mNumber(++sLastNumber) {}

TCPE_QueueLoad TCPE_PumpQueue::Deliver(std::uint32_t address, TCPE_JobList received) {
  const std::lock_guard lock(mMutex);
  TCPE_QueueLoad& load = mLoads[address];
  load += received.Load();
  while (TCPE_Job::Pointer job = received.Pop()) {
    mWaiting.push_back({.address = address,
                        .command = TCPE_ReceivedCommand::Pointer(static_cast<TCPE_ReceivedCommand*>(job.release()))});
  }
  return load;
}

void TCPE_PumpQueue::DeliverError(ETCPE_NetworkError error, std::uint32_t address) {
  const std::lock_guard lock(mMutex);
  mLoads[address].Add(TCPE_QueueLoad::Kind::notice, 0);
  mWaiting.push_back({.address = address, .error = error});
}

bool TCPE_PumpQueue::IsFull(std::uint32_t address) const {
  const std::lock_guard lock(mMutex);
  const auto load = mLoads.find(address);
  return load != mLoads.end() ? load->second.IsFull(mLimits) : mLoads.size() >= mLimits.maxQueues;
}

TCPE_QueueLoad TCPE_PumpQueue::GetQueueLoad(std::uint32_t address) const {
  const std::lock_guard lock(mMutex);
  const auto load = mLoads.find(address);
  return load != mLoads.end() ? load->second : TCPE_QueueLoad();
}

TCPE_HandlerLoad TCPE_PumpQueue::GetLoad(std::uint32_t address) const {
  const std::lock_guard lock(mMutex);
  const auto load = mLoads.find(address);
  const auto inHand = std::count_if(mInHand.begin(), mInHand.end(), [address](const auto& entry) {
    return entry.second.command->Origin()->GetAddress() == address;
  });
  return {.waiting = load != mLoads.end() ? load->second.Entries() : 0, .running = static_cast<std::size_t>(inHand)};
}

TCPE_Command* TCPE_PumpQueue::Take() {
  sPumped = mNumber;
  std::unique_lock lock(mMutex);
  while (!mWaiting.empty()) {
    Waiting next = std::move(mWaiting.front());
    mWaiting.pop_front();
    const auto load = mLoads.find(next.address);
    load->second.Remove(next.command ? next.command->GetKind() : TCPE_QueueLoad::Kind::notice,
                        next.command ? next.command->Bytes() : 0);
    if (load->second.Entries() == 0) {
      mLoads.erase(load);
    }
    if (next.command) {
      TCPE_Command* const command = next.command->Command();
      mInHand.emplace(command, InHand{std::move(next.command), std::this_thread::get_id()});
      return command;
    }
    const TCPE_PumpQueue* before = std::exchange(sReporting, this);
    lock.unlock();
    Cmn_HostCall::Run(Cmn_HostCall::Kind::networkError, [&] { mOnNetworkError(next.error, next.address); });
    lock.lock();
    sReporting = before;
  }
  return nullptr;
}

bool TCPE_PumpQueue::MayWaitHere() const { return sPumped != mNumber; }

TCPE_ReceivedCommand::Pointer TCPE_PumpQueue::Return(TCPE_Command* command) {
  const std::lock_guard lock(mMutex);
  const auto position = mInHand.find(command);
  if (position == mInHand.end()) {
    return nullptr;
  }
  TCPE_ReceivedCommand::Pointer received = std::move(position->second.command);
  mInHand.erase(position);
  mReturned.notify_all();
  return received;
}

void TCPE_PumpQueue::Stop(std::int64_t timeout) {
  std::deque<Waiting> dropped; // destroyed outside the lock
  std::unique_lock lock(mMutex);
  dropped.swap(mWaiting);
  mLoads.clear();
  mReturned.wait_for(lock, std::chrono::microseconds(timeout), [this, thread = std::this_thread::get_id()] {
    return std::all_of(mInHand.begin(), mInHand.end(),
                       [thread](const auto& entry) { return entry.second.thread == thread; });
  });
  Orphans& orphans = TheOrphans();
  const std::lock_guard orphansLock(orphans.mutex);
  for (auto& [command, inHand] : mInHand) {
    orphans.commands.emplace(command, std::move(inHand.command));
  }
  mInHand.clear();
}

void TCPE_PumpQueue::ReturnOrphan(TCPE_Command* command) {
  Orphans& orphans = TheOrphans();
  const std::lock_guard lock(orphans.mutex);
  orphans.commands.erase(command);
}
