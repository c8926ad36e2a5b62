#pragma once

struct Host_Event;

/// Takes everything that a host tells, in order, one at a time, on the thread of Host_Events. It may block: then
/// events wait, and the host goes on.
class Host_EventSink {
public:
  Host_EventSink() = default;
  virtual ~Host_EventSink() = default;
  Host_EventSink(const Host_EventSink&) = delete;
  Host_EventSink& operator=(const Host_EventSink&) = delete;

  virtual void Take(const Host_Event& event) = 0;
  /// Whether it takes samples too.
  virtual bool TakesSamples() const { return false; }
  /// Whether it could not write all that it has taken, which it has said.
  virtual bool HasFailed() const { return false; }
};
