#include "tcpe/net/TCPE_HandlerPool.h"

#include <algorithm>
#include <chrono>
#include <system_error>
#include <utility>

thread_local TCPE_HandlerPool::Running* TCPE_HandlerPool::sRunning = nullptr;

void TCPE_HandlerPool::Start() {
  const std::lock_guard lock(mMutex);
  AddThread();
}

bool TCPE_HandlerPool::Submit(std::uint32_t peer, Job job, bool mustNotBeLost) {
  const std::lock_guard lock(mMutex);
  if (mIsStopping) {
    return false;
  }
  const auto position = mPeers.try_emplace(peer).first;
  if (position->second.jobs.size() >= mMaxJobsPerPeer && !mustNotBeLost) {
    return false;
  }
  position->second.jobs.push_back(std::move(job));
  if (!position->second.isBusy) {
    MakeReady(position);
  }
  return true;
}

void TCPE_HandlerPool::Stop(std::int64_t timeout) {
  std::unique_lock lock(mMutex);
  mIsStopping = true;
  mReady.clear();
  std::deque<Job> dropped;
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
    sRunning->isReleased = true;
    sRunning->pool->EndTurn(sRunning->peer);
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
    Job job = std::move(running.peer->second.jobs.front());
    running.peer->second.jobs.pop_front();
    lock.unlock();
    sRunning = &running;
    try {
      job();
    } catch (...) { // NOLINT(bugprone-empty-catch): a handler's failure must not take the host down
    }
    job = nullptr;
    sRunning = nullptr;
    lock.lock();
    if (!running.isReleased) {
      EndTurn(running.peer);
    }
  }
  worker.hasEnded = true;
  mEnded.notify_all();
}

void TCPE_HandlerPool::MakeReady(Peers::iterator peer) {
  peer->second.isBusy = true;
  mReady.push_back(peer);
  if (mReady.size() > mIdle && mWorkers.size() < mMaxThreads) {
    try {
      AddThread();
    } catch (const std::system_error&) { // NOLINT(bugprone-empty-catch): the threads that there are take longer
    }
  }
  mWork.notify_one();
}

void TCPE_HandlerPool::EndTurn(Peers::iterator peer) {
  if (peer->second.jobs.empty() || mIsStopping) {
    mPeers.erase(peer);
  } else {
    MakeReady(peer);
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
