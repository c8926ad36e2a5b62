#pragma once

#include <trel/TCPE_EngineSnapshot.h>

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

/// The threads on which a host's handlers run: few, grown on demand up to a cap.
///
/// The jobs of one peer start in their order, the next when the one before has ended or waits for another system.
/// Thread-safe.
class TCPE_HandlerPool : public std::enable_shared_from_this<TCPE_HandlerPool> {
public:
  using Job = std::function<void()>;

  struct Bounds {
    std::size_t threads;
    std::size_t jobsPerPeer;
    std::size_t bytesPerPeer;       ///< that the waiting jobs of a peer hold
    std::size_t waitingJobsPerPeer; ///< that have started and wait for another system
    std::size_t peers;              ///< with jobs, beyond which a peer that has none is taken for full
  };

  explicit TCPE_HandlerPool(const Bounds& bounds) : mBounds(bounds) {}

  /// Starts the first thread; throws std::system_error when there is none to be had.
  void Start();
  /// False when the peer has too many jobs waiting. A job that must not be lost is queued all the same.
  /// @param bytes memory that the job holds until it has run
  bool Submit(std::uint32_t peer, Job job, std::size_t bytes = 0, bool mustNotBeLost = false);
  /// Whether a peer has as many jobs waiting as it may, or has none and too many others have. Its jobs are taken in the
  /// latter case all the same: strangers must not hinder the peers that there are.
  bool IsFull(std::uint32_t peer) const;
  TCPE_HandlerLoad GetLoad(std::uint32_t peer) const;
  /// Drops the jobs that have not started and waits for those that run, `timeout` microseconds at the most. Threads
  /// that are still busy then end by themselves.
  void Stop(std::int64_t timeout);

  /// Whether this thread is running a job of this pool.
  bool IsOnHandlerThread() const;

  /// While one lives on a handler thread, the job that runs there waits for another system and the next job of its peer
  /// may start. Without effect on other threads.
  class WaitScope {
  public:
    WaitScope();
  };

private:
  struct Waiting {
    Job job;
    std::size_t bytes;
  };
  struct Peer {
    std::deque<Waiting> jobs;
    std::size_t bytes = 0;
    std::size_t released = 0; ///< jobs that wait for another system
    bool isBusy = false;      ///< a job is ready, or runs and has not been released
    bool isRunning = false;   ///< it has started
  };
  using Peers = std::map<std::uint32_t, Peer>;
  /// What this thread runs; one a thread.
  struct Running {
    TCPE_HandlerPool* pool = nullptr;
    Peers::iterator peer;
    bool isReleased = false;
  };
  struct Worker {
    std::thread thread;
    bool hasEnded = false;
  };

  void Run(Worker& worker);
  bool IsFull(const Peer& peer) const {
    return peer.jobs.size() >= mBounds.jobsPerPeer || peer.bytes >= mBounds.bytesPerPeer;
  }
  void MakeReady(Peers::iterator peer);
  /// Lets the next job of a peer start, if there is one and it may; forgets a peer that has none.
  void Continue(Peers::iterator peer);
  void AddThread();

  static thread_local Running* sRunning;

  const Bounds mBounds;
  mutable std::mutex mMutex;
  std::condition_variable mWork;
  std::condition_variable mEnded;
  Peers mPeers;
  std::deque<Peers::iterator> mReady;
  std::list<Worker> mWorkers;
  std::size_t mIdle = 0;
  bool mIsStopping = false;
};
