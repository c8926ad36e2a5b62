#pragma once

#include "tools/trel/common/Output_Buffer.h"
#include "tools/trel/host/Host_EventSink.h"

#include <ostream>

/// Writes each event as one JSON object on a line.
class Host_JsonSink : public Host_EventSink {
public:
  explicit Host_JsonSink(std::ostream& out) : mOut(out) {}
  void Take(const Host_Event& event) override;
  void GiveUp() override { Output_Buffer::GiveUp(mOut); }

private:
  std::ostream& mOut;
};
