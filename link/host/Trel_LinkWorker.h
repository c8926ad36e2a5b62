#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <thread>

/// The thread on which a session does what blocks: tasks in the order in which they came, and between them, when it is
/// time, a look at what is due. Any thread may post; nothing is posted without bound.
class Trel_LinkWorker {
public:
  using Task = std::function<void()>;
  /// Does what is due at `now`, microseconds of the raw clock; returns when to be called again at the latest.
  using Tick = std::function<std::int64_t(std::int64_t now)>;
  static constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();

  ~Trel_LinkWorker() { Stop(); }

  /// A task that a command of a peer calls for; dropped when 512 of that peer wait.
  void Post(std::uint32_t peer, Task task);
  /// A peer has come or gone: what waits of it is obsolete, and dropped.
  void PostChange(std::uint32_t peer, Task task);
  /// A task of the host's.
  void Post(Task task) { Post(0, std::move(task)); }

  /// Begins with what has been posted already. False when it runs already, or the system has no thread.
  bool Start(Tick tick, Task end);
  /// From Start to the end of Stop. Never waits.
  bool IsRunning();
  /// Runs `end` and returns when the thread has ended. Not on that thread.
  void Stop();
  /// On the thread itself.
  bool IsOnOwnThread();

private:
  struct Posted {
    std::uint32_t peer;
    Task task;
  };

  void Push(std::uint32_t peer, Task task);
  void Run(const Tick& tick);

  std::mutex mMutex;
  std::condition_variable mChanged;
  std::deque<Posted> mTasks;
  std::map<std::uint32_t, std::size_t> mWaiting; // tasks of each peer
  std::thread::id mThreadID;                     // none while it does not run
  bool mIsStopping = false;
  bool mIsPosted = false;
  std::mutex mThreadMutex;
  std::thread mThread;
};
