#pragma once

#include "tools/trel/host/Host_Event.h"
#include "tools/trel/host/Host_Throttle.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

class Host_EventSink;

/// What a host tells, on its way to one sink: a thread of its own gives it there, so that a terminal that is held, or a
/// pipe that nobody reads, holds up neither the link nor the other sinks. What one system can have it tell is bounded.
class Host_EventQueue {
public:
  explicit Host_EventQueue(std::unique_ptr<Host_EventSink> sink);
  /// After AwaitEnd.
  ~Host_EventQueue();
  Host_EventQueue(const Host_EventQueue&) = delete;
  Host_EventQueue& operator=(const Host_EventQueue&) = delete;

  /// Thread-safe; never waits. When too many events wait already, this one is counted and dropped.
  void Push(const Host_Event& event);
  /// Nothing comes any more.
  void End();
  /// Everything has been taken afterwards, or the sink was given up at the deadline.
  /// @return whether all of it could be written
  bool AwaitEnd(std::chrono::steady_clock::time_point deadline);

private:
  void Run();

  const std::unique_ptr<Host_EventSink> mSink;
  std::mutex mMutex;
  std::condition_variable mChanged;
  Host_Throttle mThrottle;
  std::deque<Host_Event> mWaiting;
  std::int64_t mDropped = 0;
  bool mIsEnding = false;
  bool mHasEnded = false;
  std::thread mThread;
};
