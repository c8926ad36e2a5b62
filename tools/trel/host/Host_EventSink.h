#pragma once

struct Host_Event;

/// Takes everything that a host tells, in order, one at a time, on a thread of its own. It may block: then events wait,
/// and the host goes on.
class Host_EventSink {
public:
  Host_EventSink() = default;
  virtual ~Host_EventSink() = default;
  Host_EventSink(const Host_EventSink&) = delete;
  Host_EventSink& operator=(const Host_EventSink&) = delete;

  virtual void Take(const Host_Event& event) = 0;
  /// Whether it takes samples too.
  virtual bool TakesSamples() const { return false; }
  /// Ends the waiting for who reads it, so that Take returns soon. On any thread.
  virtual void GiveUp() = 0;
  /// Whether it could not write all that it has taken, which it has said.
  virtual bool HasFailed() const { return false; }
};
