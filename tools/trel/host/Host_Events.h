#pragma once

#include "tools/trel/host/Host_Event.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class Host_EventSink;

/// The one place through which everything passes that a host tells. A thread of its own gives it to the sinks, so that
/// a terminal that is held never holds up the link.
class Host_Events {
public:
  explicit Host_Events(std::vector<std::unique_ptr<Host_EventSink>> sinks);
  ~Host_Events() { Finish(); }
  Host_Events(const Host_Events&) = delete;
  Host_Events& operator=(const Host_Events&) = delete;

  /// Thread-safe; never waits. When too many events wait already, this one is counted and dropped.
  void Tell(Host_Event event);
  /// Everything that has been told has been taken afterwards, and nothing more is.
  /// @return whether all of it could be written
  bool Finish();

private:
  void Run();
  void Take(const Host_Event& event);

  std::vector<std::unique_ptr<Host_EventSink>> mSinks;
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::deque<Host_Event> mWaiting;
  std::int64_t mDropped = 0;
  bool mEnding = false;
  std::thread mThread;
};
