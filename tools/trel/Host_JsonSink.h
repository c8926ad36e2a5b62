#pragma once

#include "Host_EventSink.h"

/// Writes each event as one JSON object on a line of standard output.
class Host_JsonSink : public Host_EventSink {
public:
  void Take(const Host_Event& event) override;
};
