#pragma once

#include "tools/trel/host/Host_Event.h"
#include "tools/trel/host/Host_EventQueue.h"

#include <memory>
#include <vector>

class Host_EventSink;

/// The one place through which everything passes that a host tells.
class Host_Events {
public:
  explicit Host_Events(std::vector<std::unique_ptr<Host_EventSink>> sinks);
  ~Host_Events() { Finish(); }
  Host_Events(const Host_Events&) = delete;
  Host_Events& operator=(const Host_Events&) = delete;

  /// Thread-safe; never waits. When too many events wait already for a sink, this one is counted and dropped there.
  void Tell(const Host_Event& event);
  /// Everything that has been told has been taken afterwards, and nothing more is. A sink that takes too long for that
  /// is given up.
  /// @return whether all of it could be written
  bool Finish();

private:
  std::vector<std::unique_ptr<Host_EventQueue>> mQueues;
};
