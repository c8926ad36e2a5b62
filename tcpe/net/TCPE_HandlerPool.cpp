#include "tcpe/net/TCPE_HandlerPool.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <system_error>
#include <utility>

thread_local TCPE_HandlerPool::Running* TCPE_HandlerPool::sRunning = nullptr;

void TCPE_HandlerPool::Start() {
  const std::lock_guard lock(mMutex);
  AddThread();
}

bool TCPE_HandlerPool::Submit(std::uint32_t peer, Job job, std::size_t bytes, bool mustNotBeLost) {
  const std::lock_guard lock(mMutex);
  if (mIsStopping) {
    return false;
  }
  const auto position = mPeers.try_emplace(peer).first;
  if (IsFull(position->second) && !mustNotBeLost) {
    return false;
  }
  position->second.jobs.push_back({std::move(job), bytes});
  position->second.bytes += bytes;
  Continue(position);
  return true;
}

bool TCPE_HandlerPool::IsFull(std::uint32_t peer) const {
  const std::lock_guard lock(mMutex);
  const auto position = mPeers.find(peer);
  return position != mPeers.end() ? IsFull(position->second) : mPeers.size() >= mBounds.peers;
}

TCPE_HandlerLoad TCPE_HandlerPool::GetLoad(std::uint32_t peer) const {
  const std::lock_guard lock(mMutex);
  const auto position = mPeers.find(peer);
  if (position == mPeers.end()) {
    return {};
  }
  const Peer& state = position->second;
  return {.waiting = state.jobs.size(),
          .running = state.isRunning ? std::size_t{1} : 0,
          .waitingForOthers = state.released};
}

void TCPE_HandlerPool::Stop(std::int64_t timeout) {
  std::unique_lock lock(mMutex);
  mIsStopping = true;
  mReady.clear();
  std::deque<Waiting> dropped; // destroyed outside the lock
  for (auto& [address, peer] : mPeers) {
    std::move(peer.jobs.begin(), peer.jobs.end(), std::back_inserter(dropped));
    peer.jobs.clear();
  }
  mWork.notify_all();
  mEnded.wait_for(lock, std::chrono::microseconds(timeout), [this] {
    return std::all_of(mWorkers.begin(), mWorkers.end(), [](const Worker& worker) { return worker.hasEnded; });
  });
  std::list<std::thread> ended;
  for (Worker& worker : mWorkers) {
    if (worker.hasEnded) {
      ended.push_back(std::move(worker.thread));
    } else {
      worker.thread.detach();
    }
  }
  lock.unlock();
  for (std::thread& thread : ended) {
    thread.join();
  }
}

bool TCPE_HandlerPool::IsOnHandlerThread() const { return sRunning != nullptr && sRunning->pool == this; }

TCPE_HandlerPool::WaitScope::WaitScope() {
  if (sRunning != nullptr && !sRunning->isReleased) {
    const std::lock_guard lock(sRunning->pool->mMutex);
    Peer& peer = sRunning->peer->second;
    sRunning->isReleased = true;
    peer.isBusy = false;
    peer.isRunning = false;
    ++peer.released;
    sRunning->pool->Continue(sRunning->peer);
  }
}

void TCPE_HandlerPool::Run(Worker& worker) {
  std::unique_lock lock(mMutex);
  while (!mIsStopping) {
    if (mReady.empty()) {
      ++mIdle;
      mWork.wait(lock);
      --mIdle;
      continue;
    }
    Running running{this, mReady.front()};
    mReady.pop_front();
    Peer& peer = running.peer->second;
    Job job = std::move(peer.jobs.front().job);
    peer.bytes -= peer.jobs.front().bytes;
    peer.jobs.pop_front();
    peer.isRunning = true;
    lock.unlock();
    sRunning = &running;
    try {
      job();
    } catch (...) { // NOLINT(bugprone-empty-catch): a handler's failure must not take the host down
    }
    job = nullptr;
    sRunning = nullptr;
    lock.lock();
    if (running.isReleased) {
      --peer.released;
    } else {
      peer.isBusy = false;
      peer.isRunning = false;
    }
    Continue(running.peer);
  }
  worker.hasEnded = true;
  mEnded.notify_all();
}

void TCPE_HandlerPool::MakeReady(Peers::iterator peer) {
  peer->second.isBusy = true;
  mReady.push_back(peer);
  if (mReady.size() > mIdle && mWorkers.size() < mBounds.threads) {
    try {
      AddThread();
    } catch (const std::system_error&) { // NOLINT(bugprone-empty-catch): the threads that there are take longer
    }
  }
  mWork.notify_one();
}

void TCPE_HandlerPool::Continue(Peers::iterator peer) {
  const Peer& state = peer->second;
  if (state.isBusy) {
    return;
  }
  if (!state.jobs.empty() && state.released < mBounds.waitingJobsPerPeer) {
    MakeReady(peer);
  } else if (state.jobs.empty() && state.released == 0) {
    mPeers.erase(peer);
  }
}

void TCPE_HandlerPool::AddThread() {
  Worker& worker = mWorkers.emplace_back();
  try {
    // The thread keeps the pool: a handler may outlive the engine.
    worker.thread = std::thread([self = shared_from_this(), &worker] { self->Run(worker); });
  } catch (...) {
    mWorkers.pop_back();
    throw;
  }
}
