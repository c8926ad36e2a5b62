#pragma once

#include "tools/trel/host/Host_EventSink.h"

#include <cstdint>

/// Writes events to standard output for people. On a terminal a prompt waits below them.
class Host_WordsSink : public Host_EventSink {
public:
  explicit Host_WordsSink(bool isVerbose);
  void Take(const Host_Event& event) override;
  void GiveUp() override;

private:
  bool mIsVerbose;
  std::int64_t mStart;   // raw time
  bool mPrompts = false; // the user is at the prompt
};
