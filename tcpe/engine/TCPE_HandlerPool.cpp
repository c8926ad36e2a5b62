#include "tcpe/engine/TCPE_HandlerPool.h"

#include <algorithm>
#include <chrono>
#include <iterator>
#include <system_error>
#include <utility>

thread_local TCPE_HandlerPool::Running* TCPE_HandlerPool::sRunning = nullptr;

namespace {

class FunctionJob final : public TCPE_Job {
public:
  FunctionJob(std::function<void()> function, Kind kind, std::size_t bytes)
      : TCPE_Job(kind, bytes), mFunction(std::move(function)) {}
  void Run() override { mFunction(); }

private:
  ~FunctionJob() override = default;

  const std::function<void()> mFunction;
};

} // namespace

void TCPE_HandlerPool::Start(std::shared_ptr<void> owner) {
  std::unique_lock lock(mMutex);
  mOwner = std::move(owner);
  KeepOneIdle(lock);
  if (mWorkers.empty()) {
    mOwner.reset();
    throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
  }
}

TCPE_QueueLoad TCPE_HandlerPool::Submit(std::uint32_t peer, TCPE_JobList jobs) {
  const std::lock_guard lock(mMutex);
  if (mIsStopping) {
    return {};
  }
  const auto position = mPeers.try_emplace(peer).first;
  position->second.jobs.Append(std::move(jobs));
  const TCPE_QueueLoad load = LoadOf(position->second);
  Continue(position);
  return load;
}

bool TCPE_HandlerPool::Submit(std::uint32_t peer, Job job, Kind kind, std::size_t bytes) {
  TCPE_JobList jobs;
  jobs.Push(TCPE_Job::Pointer(new FunctionJob(std::move(job), kind, bytes)));
  const std::lock_guard lock(mMutex);
  if (mIsStopping) {
    return false;
  }
  const auto position = mPeers.try_emplace(peer).first;
  if (kind == Kind::query && !LoadOf(position->second).HasRoomForQuery(mLimits)) {
    return false;
  }
  position->second.jobs.Append(std::move(jobs));
  Continue(position);
  return true;
}

bool TCPE_HandlerPool::IsFull(std::uint32_t peer) const {
  const std::lock_guard lock(mMutex);
  const auto position = mPeers.find(peer);
  return position != mPeers.end() ? LoadOf(position->second).IsFull(mLimits) : mPeers.size() >= mLimits.maxQueues;
}

TCPE_QueueLoad TCPE_HandlerPool::GetQueueLoad(std::uint32_t peer) const {
  const std::lock_guard lock(mMutex);
  const auto position = mPeers.find(peer);
  return position != mPeers.end() ? LoadOf(position->second) : TCPE_QueueLoad();
}

TCPE_HandlerLoad TCPE_HandlerPool::GetLoad(std::uint32_t peer) const {
  const std::lock_guard lock(mMutex);
  const auto position = mPeers.find(peer);
  if (position == mPeers.end()) {
    return {};
  }
  const Peer& state = position->second;
  return {.waiting = LoadOf(state).Entries(),
          .running = state.running != nullptr ? std::size_t{1} : 0,
          .waitingForOthers = state.released};
}

std::size_t TCPE_HandlerPool::CountThreads() const {
  const std::lock_guard lock(mMutex);
  return mWorkers.size();
}

void TCPE_HandlerPool::Stop(std::int64_t timeout) {
  TCPE_JobList dropped; // destroyed outside the lock
  std::shared_ptr<void> owner;
  std::unique_lock lock(mMutex);
  mIsStopping = true;
  owner = std::move(mOwner);
  mReady.clear();
  for (auto& [address, peer] : mPeers) {
    dropped.Append(std::move(peer.jobs));
    for (Running* running : peer.returning) {
      running->hasTurnAgain.notify_one();
    }
  }
  mWork.notify_all();
  mEnded.wait_for(lock, std::chrono::microseconds(timeout), [this] {
    return std::all_of(mWorkers.begin(), mWorkers.end(), [](const Worker& worker) { return worker.hasEnded; });
  });
  mEnded.wait(lock, [this] { return mCreating == 0; });
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

TCPE_HandlerPool::WaitScope::WaitScope() : mHasGivenUp(sRunning != nullptr && sRunning->hasTurn) {
  if (mHasGivenUp) {
    TCPE_HandlerPool& pool = *sRunning->pool;
    const std::lock_guard lock(pool.mMutex);
    pool.GiveUpTurn(*sRunning);
    ++sRunning->peer->second.released;
    pool.Continue(sRunning->peer);
  }
}

TCPE_HandlerPool::WaitScope::~WaitScope() {
  if (mHasGivenUp) {
    std::unique_lock lock(sRunning->pool->mMutex);
    sRunning->pool->TakeTurnBack(lock, *sRunning);
  }
}

void TCPE_HandlerPool::Run(Worker& worker) {
  std::unique_lock lock(mMutex);
  --mStarting;
  while (!mIsStopping && AwaitJobs(lock)) {
    Running running{.pool = this, .peer = mReady.front()};
    mReady.pop_front();
    Peer& peer = running.peer->second;
    running.isExtra = std::exchange(peer.startsExtra, false);
    if (peer.startsQuery) {
      running.rest.Push(peer.jobs.PopQuery());
    } else {
      running.rest = std::move(peer.jobs);
    }
    running.left.Set(running.rest.Load());
    peer.running = &running;
    KeepOneIdle(lock);
    RunJobs(lock, running);
    if (running.hasTurn) {
      GiveUpTurn(running);
    } else {
      --peer.released;
    }
    const bool isExtra = running.isExtra;
    Continue(running.peer);
    if (isExtra) {
      ExtraEnded();
    }
  }
  worker.hasEnded = true;
  mEnded.notify_all();
}

bool TCPE_HandlerPool::AwaitJobs(std::unique_lock<std::mutex>& lock) {
  while (mReady.empty() && !mIsStopping) {
    ++mIdle;
    const bool hasTimedOut =
        mWork.wait_for(lock, std::chrono::microseconds(mLimits.idleThread)) == std::cv_status::timeout;
    --mIdle;
    if (hasTimedOut && mReady.empty() && mIdle != 0) {
      return false;
    }
    if (hasTimedOut) {
      JoinEnded(lock);
    }
  }
  return !mIsStopping;
}

void TCPE_HandlerPool::RunJobs(std::unique_lock<std::mutex>& lock, Running& running) {
  lock.unlock();
  sRunning = &running;
  while (!mIsStopping && !running.isWanted.load(std::memory_order_relaxed)) {
    TCPE_Job::Pointer job = running.rest.Pop();
    if (!job) {
      break;
    }
    running.left.Set(running.rest.Load());
    running.kept = 0;
    job->Run();
    job.reset();
  }
  sRunning = nullptr;
  if (mIsStopping) {
    running.rest = {};
  }
  lock.lock();
}

void TCPE_HandlerPool::KeepOneIdle(std::unique_lock<std::mutex>& lock) {
  if (mIdle + mStarting > mReady.size() || mIsStopping) {
    return;
  }
  JoinEnded(lock);
  if (mWorkers.size() < mLimits.maxHandlerThreads && !mIsStopping) {
    Worker& worker = mWorkers.emplace_back();
    ++mStarting;
    ++mCreating;
    // The thread keeps the pool and its owner: a handler may outlive the engine.
    const auto run = [self = shared_from_this(), owner = mOwner, &worker] { self->Run(worker); };
    lock.unlock();
    try {
      worker.thread = std::thread(run);
    } catch (const std::system_error&) { // NOLINT(bugprone-empty-catch): the threads that there are take longer
    }
    lock.lock();
    --mCreating;
    if (!worker.thread.joinable()) {
      --mStarting;
      mWorkers.remove_if([&worker](const Worker& other) { return &other == &worker; });
    }
    mEnded.notify_all();
  }
}

void TCPE_HandlerPool::JoinEnded(std::unique_lock<std::mutex>& lock) {
  std::list<Worker> ended;
  for (auto worker = mWorkers.begin(); mCreating == 0 && worker != mWorkers.end();) {
    const auto next = std::next(worker);
    if (worker->hasEnded) {
      ended.splice(ended.end(), mWorkers, worker);
    }
    worker = next;
  }
  lock.unlock();
  for (Worker& worker : ended) {
    worker.thread.join();
  }
  lock.lock();
}

void TCPE_HandlerPool::GiveUpTurn(Running& running) {
  Peer& peer = running.peer->second;
  running.rest.Append(std::move(peer.jobs));
  peer.jobs = std::move(running.rest);
  running.left.Set({});
  running.hasTurn = false;
  running.isWanted = false;
  peer.running = nullptr;
  peer.isBusy = false;
}

void TCPE_HandlerPool::GiveTurn(Running& running) {
  Peer& peer = running.peer->second;
  running.hasTurn = true;
  running.isWanted = !peer.returning.empty();
  peer.running = &running;
  peer.isBusy = true;
  --peer.released;
}

void TCPE_HandlerPool::TakeTurnBack(std::unique_lock<std::mutex>& lock, Running& running) {
  Peer& peer = running.peer->second;
  if (const auto ready = std::find(mReady.begin(), mReady.end(), running.peer); ready != mReady.end()) {
    mReady.erase(ready); // nobody has begun with what has become ready meanwhile
    GiveTurn(running);
    if (std::exchange(peer.startsExtra, false)) {
      ExtraEnded();
    }
    return;
  }
  if (!peer.isBusy) {
    GiveTurn(running);
    return;
  }
  peer.returning.push_back(&running);
  if (peer.running != nullptr) {
    peer.running->isWanted = true;
  }
  running.hasTurnAgain.wait_for(lock, std::chrono::microseconds(mLimits.turn),
                                [&] { return running.hasTurn || mIsStopping; });
  std::erase(peer.returning, &running);
}

void TCPE_HandlerPool::MakeReady(Peers::iterator peer, bool isQuery) {
  Peer& state = peer->second;
  state.isBusy = true;
  state.startsQuery = isQuery;
  state.startsExtra = state.released >= 2;
  mExtra += state.startsExtra ? 1 : 0;
  mReady.push_back(peer);
  mWork.notify_one();
}

bool TCPE_HandlerPool::MayStart(const Peer& peer, bool isQuery) {
  if (peer.released >= (isQuery ? 2 : 1) * mLimits.maxWaitingHandlers) {
    return false;
  }
  const bool isShort = peer.released >= 2 && mExtra >= mLimits.maxExtraHandlers / (isQuery ? 1 : 2);
  mExtraIsShort = mExtraIsShort || isShort;
  return !isShort;
}

void TCPE_HandlerPool::Continue(Peers::iterator peer) {
  Peer& state = peer->second;
  if (state.isBusy || mIsStopping) {
    return;
  }
  if (!state.returning.empty()) {
    Running& next = *state.returning.front();
    state.returning.pop_front();
    GiveTurn(next);
    next.hasTurnAgain.notify_one();
  } else if (!state.jobs.IsEmpty() && MayStart(state, false)) {
    MakeReady(peer, false);
  } else if (state.jobs.Load().Queries() != 0 && MayStart(state, true)) {
    // They may wait for handlers of the peer, which wait for this one to be answered.
    MakeReady(peer, true);
  } else if (state.jobs.IsEmpty() && state.released == 0) {
    mPeers.erase(peer);
  }
}

void TCPE_HandlerPool::ExtraEnded() {
  --mExtra;
  if (std::exchange(mExtraIsShort, false)) {
    for (auto peer = mPeers.begin(); peer != mPeers.end();) {
      Continue(peer++);
    }
  }
}

TCPE_QueueLoad TCPE_HandlerPool::LoadOf(const Peer& peer) {
  TCPE_QueueLoad load = peer.jobs.Load();
  if (peer.running != nullptr) {
    load += peer.running->left.Get();
  }
  return load;
}
