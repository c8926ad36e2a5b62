#include "tcpe/net/TCPE_PumpQueue.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace {

/// Commands that hosts still had in hand when their engines ended. Never destroyed: a host may return one at any time.
struct Orphans {
  std::mutex mutex;
  std::map<TCPE_Command*, TCPE_PumpQueue::ReceivedPointer> commands;
};

Orphans& TheOrphans() {
  static auto* const orphans = new Orphans;
  return *orphans;
}

} // namespace

bool TCPE_PumpQueue::Push(const ReceivedPointer& received, std::size_t bytes, bool mustNotBeLost) {
  const std::uint32_t address = received->Origin()->GetAddress();
  const std::lock_guard lock(mMutex);
  const auto load = mLoads.find(address);
  if (load != mLoads.end() && IsFull(load->second) && !mustNotBeLost) {
    return false;
  }
  PushLocked({.address = address, .command = received, .bytes = bytes});
  return true;
}

void TCPE_PumpQueue::PushError(ETCPE_NetworkError error, std::uint32_t address) {
  const std::lock_guard lock(mMutex);
  PushLocked({.address = address, .error = error});
}

bool TCPE_PumpQueue::IsFull(std::uint32_t address) const {
  const std::lock_guard lock(mMutex);
  const auto load = mLoads.find(address);
  return load != mLoads.end() ? IsFull(load->second) : mLoads.size() >= mLimits.maxQueues;
}

TCPE_HandlerLoad TCPE_PumpQueue::GetLoad(std::uint32_t address) const {
  const std::lock_guard lock(mMutex);
  const auto load = mLoads.find(address);
  const auto inHand = std::count_if(mInHand.begin(), mInHand.end(), [address](const auto& entry) {
    return entry.second.command->Origin()->GetAddress() == address;
  });
  return {.waiting = load != mLoads.end() ? load->second.entries : 0, .running = static_cast<std::size_t>(inHand)};
}

TCPE_Command* TCPE_PumpQueue::Take() {
  std::unique_lock lock(mMutex);
  while (!mWaiting.empty()) {
    const Waiting next = std::move(mWaiting.front());
    mWaiting.pop_front();
    const auto load = mLoads.find(next.address);
    load->second.bytes -= next.bytes;
    if (--load->second.entries == 0) {
      mLoads.erase(load);
    }
    if (next.command) {
      mInHand.emplace(next.command->Command(), InHand{next.command, std::this_thread::get_id()});
      return next.command->Command();
    }
    const std::thread::id before = std::exchange(mReportingThread, std::this_thread::get_id());
    lock.unlock();
    mOnNetworkError(next.error, next.address);
    lock.lock();
    mReportingThread = before;
  }
  return nullptr;
}

TCPE_PumpQueue::ReceivedPointer TCPE_PumpQueue::Return(TCPE_Command* command) {
  const std::lock_guard lock(mMutex);
  const auto position = mInHand.find(command);
  if (position == mInHand.end()) {
    return nullptr;
  }
  ReceivedPointer received = std::move(position->second.command);
  mInHand.erase(position);
  mReturned.notify_all();
  return received;
}

bool TCPE_PumpQueue::IsInHandOfThisThread() const {
  const std::thread::id thread = std::this_thread::get_id();
  const std::lock_guard lock(mMutex);
  return mReportingThread == thread || std::any_of(mInHand.begin(), mInHand.end(), [thread](const auto& entry) {
           return entry.second.thread == thread;
         });
}

void TCPE_PumpQueue::Stop(std::int64_t timeout) {
  std::deque<Waiting> dropped; // destroyed outside the lock
  std::unique_lock lock(mMutex);
  dropped.swap(mWaiting);
  mLoads.clear();
  mReturned.wait_for(lock, std::chrono::microseconds(timeout), [this] { return mInHand.empty(); });
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

void TCPE_PumpQueue::PushLocked(Waiting waiting) {
  Load& load = mLoads[waiting.address];
  ++load.entries;
  load.bytes += waiting.bytes;
  mWaiting.push_back(std::move(waiting));
}
