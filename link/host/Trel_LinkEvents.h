#pragma once

#include <trel/host/Trel_LinkEvent.h>

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

/// Tells the host of the link, and calls it, in order and on one thread of its own, so that a host which takes its time
/// delays nothing but what it is told. Thread-safe.
class Trel_LinkEvents {
public:
  using Handler = std::function<void(const Trel_LinkEvent&)>;

  /// @param handler does not throw
  explicit Trel_LinkEvents(Handler handler) : mHandler(std::move(handler)) {}

  /// Throws std::system_error when there is no thread to be had.
  void Start();
  /// Waits for the handler that is running; what it has not been told yet it is not told. Not from the handler.
  void Stop();
  bool IsOnOwnThread();

  /// A system that says too much is told about no further; then it is told how many were left out. Of who comes and
  /// goes nothing is left out.
  void Tell(Trel_LinkEvent event);
  /// Has the host called, after all that it is told before.
  void Call(std::function<void()> call);
  /// So much waits for the host that nobody new is to be let in.
  bool IsFull();

private:
  struct OfSystem {
    std::size_t waiting = 0;
    std::int64_t leftOut = 0;
  };
  /// An event, or a call.
  struct Waiting {
    Trel_LinkEvent event{};
    std::function<void()> call{};
  };

  void Run();
  void Add(Trel_LinkEvent event);
  void TakeOff(const Trel_LinkEvent& event);

  const Handler mHandler;
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::deque<Waiting> mWaiting;
  std::map<std::uint32_t, OfSystem> mSystems; ///< of which something waits, by address
  std::thread::id mThreadID;
  bool mIsStopping = false;

  std::thread mThread;
};
