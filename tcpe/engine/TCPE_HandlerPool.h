#pragma once

#include "tcpe/engine/TCPE_Job.h"
#include "tcpe/engine/TCPE_QueueLoad.h"

#include <trel/TCPE_EngineSnapshot.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

/// The threads on which a host's handlers run: few, grown on demand up to a cap by these threads themselves.
///
/// The jobs of one peer start in their order, the next when the one before has ended or waits for another system. One
/// that need not wait any more goes on when none of its peer runs. When as many wait as may, the queries among the next
/// ones start all the same: what the peer's handlers wait for must not stand behind what waits for them. However many
/// wait for one peer, threads are left for each other one.
///
/// A thread takes all that a peer has waiting, and runs it without a lock. Thread-safe.
class TCPE_HandlerPool : public std::enable_shared_from_this<TCPE_HandlerPool> {
public:
  using Job = std::function<void()>; ///< throws nothing
  using Kind = TCPE_QueueLoad::Kind;

  explicit TCPE_HandlerPool(const TCPE_Limits& limits) : mLimits(limits) {}

  /// Starts the first thread; throws std::system_error when there is none to be had.
  /// @param owner what the threads keep as long as they run
  void Start(std::shared_ptr<void> owner = nullptr);
  /// Takes jobs, all of them unless it has been stopped. What waits of the peer now.
  TCPE_QueueLoad Submit(std::uint32_t peer, TCPE_JobList jobs);
  /// False when the peer has too many queries waiting, or after Stop. All other jobs are taken.
  /// @param bytes memory that the job holds until it has run
  bool Submit(std::uint32_t peer, Job job, Kind kind = Kind::command, std::size_t bytes = 0);
  /// Whether a peer has as many jobs waiting as it may, or has none and too many others have. Its jobs are taken in the
  /// latter case all the same: strangers must not hinder the peers that there are.
  bool IsFull(std::uint32_t peer) const;
  TCPE_QueueLoad GetQueueLoad(std::uint32_t peer) const;
  TCPE_HandlerLoad GetLoad(std::uint32_t peer) const;
  std::size_t CountThreads() const;
  /// Drops the jobs that have not started and waits for those that run, `timeout` microseconds at the most. Threads
  /// that are still busy then end by themselves.
  void Stop(std::int64_t timeout);

  /// Whether this thread is running a job of this pool.
  bool IsOnHandlerThread() const;
  /// How many commands the job that this thread runs has left to be kept; null on other threads.
  static std::size_t* KeptByThisJob() { return sRunning != nullptr ? &sRunning->kept : nullptr; }

  /// While one lives on a handler thread, the job that runs there waits for another system and the next job of its peer
  /// may start. At its end it is this one's turn again: it waits for the other one, but no longer than a bound. Without
  /// effect on other threads, and within another one.
  class WaitScope {
  public:
    WaitScope();
    ~WaitScope();
    WaitScope(const WaitScope&) = delete;
    WaitScope& operator=(const WaitScope&) = delete;

  private:
    const bool mHasGivenUp;
  };

private:
  struct Running;
  struct Peer {
    TCPE_JobList jobs;
    std::size_t released = 0;         ///< jobs that wait for another system, or to go on after that
    std::deque<Running*> returning{}; ///< those that wait to go on
    Running* running = nullptr;       ///< who has the turn; null while nobody has, or a thread is about to take it
    bool isBusy = false;              ///< a job is ready, or has the turn
    bool startsQuery = false;         ///< what is ready is the first query alone
    bool startsExtra = false;         ///< ... is one of those beyond the first two
  };
  using Peers = std::map<std::uint32_t, Peer>;
  /// What this thread runs; one a thread.
  struct Running {
    TCPE_HandlerPool* pool = nullptr;
    Peers::iterator peer;
    bool isExtra = false;
    TCPE_JobList rest{};                ///< to be run next
    TCPE_SharedQueueLoad left{};        ///< what the rest amounts to
    std::atomic<bool> isWanted = false; ///< somebody else wants the turn
    bool hasTurn = true;
    std::condition_variable hasTurnAgain{};
    std::size_t kept = 0;
  };
  struct Worker {
    std::thread thread;
    bool hasEnded = false;
  };

  // All with the mutex held.
  void Run(Worker& worker);
  /// False when the thread is to end: it was idle for long, and is not the only one. Lets go of the lock meanwhile.
  bool AwaitJobs(std::unique_lock<std::mutex>& lock);
  void RunJobs(std::unique_lock<std::mutex>& lock, Running& running);
  /// Sees to it that a thread waits for what comes next. Lets go of the lock meanwhile.
  void KeepOneIdle(std::unique_lock<std::mutex>& lock);
  /// Clears away the threads that have ended because they were idle. Lets go of the lock meanwhile.
  void JoinEnded(std::unique_lock<std::mutex>& lock);
  void GiveUpTurn(Running& running);
  void GiveTurn(Running& running);
  void TakeTurnBack(std::unique_lock<std::mutex>& lock, Running& running);
  void MakeReady(Peers::iterator peer, bool isQuery);
  bool MayStart(const Peer& peer, bool isQuery);
  /// Lets the next job of a peer start, if there is one and it may; forgets a peer that has none.
  void Continue(Peers::iterator peer);
  void ExtraEnded();
  static TCPE_QueueLoad LoadOf(const Peer& peer);

  static thread_local Running* sRunning;

  const TCPE_Limits mLimits; // a copy: a handler may outlive the engine
  mutable std::mutex mMutex;
  std::condition_variable mWork;
  std::condition_variable mEnded;
  Peers mPeers;
  std::deque<Peers::iterator> mReady;
  std::list<Worker> mWorkers;
  std::shared_ptr<void> mOwner;
  std::size_t mIdle = 0;
  std::size_t mStarting = 0;  ///< threads that have not begun to run
  std::size_t mCreating = 0;  ///< threads whose creators are still at it
  std::size_t mExtra = 0;     ///< jobs beyond the first two of a peer, started or ready
  bool mExtraIsShort = false; ///< one was not started because there were too many
  std::atomic<bool> mIsStopping = false;
};
