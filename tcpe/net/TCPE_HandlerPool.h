#pragma once

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

  TCPE_HandlerPool(std::size_t maxThreads, std::size_t maxJobsPerPeer)
      : mMaxThreads(maxThreads), mMaxJobsPerPeer(maxJobsPerPeer) {}

  /// Starts the first thread; throws std::system_error when there is none to be had.
  void Start();
  /// False when the peer has too many jobs waiting. A job that must not be lost is queued all the same.
  bool Submit(std::uint32_t peer, Job job, bool mustNotBeLost = false);
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
  struct Peer {
    std::deque<Job> jobs;
    bool isBusy = false;
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
  void MakeReady(Peers::iterator peer);
  void EndTurn(Peers::iterator peer);
  void AddThread();

  static thread_local Running* sRunning;

  const std::size_t mMaxThreads;
  const std::size_t mMaxJobsPerPeer;
  std::mutex mMutex;
  std::condition_variable mWork;
  std::condition_variable mEnded;
  Peers mPeers;
  std::deque<Peers::iterator> mReady;
  std::list<Worker> mWorkers;
  std::size_t mIdle = 0;
  bool mIsStopping = false;
};
