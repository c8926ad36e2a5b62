#pragma once

#include "tools/trel/common/Output_File.h"
#include "tools/trel/host/Host_EventSink.h"
#include "tools/trel/host/Host_JsonSink.h"

#include <string>

/// Records everything that a host tells, samples included, for a report.
class Host_RecordSink : public Host_EventSink {
public:
  /// Throws std::runtime_error when the file cannot be written.
  explicit Host_RecordSink(const std::string& file);
  void Take(const Host_Event& event) override { mWriter.Take(event); }
  void GiveUp() override { mWriter.GiveUp(); }
  bool TakesSamples() const override { return true; }
  bool HasFailed() const override { return !mFile.Problem().empty(); }

private:
  Output_File mFile;
  Host_JsonSink mWriter; // writes to it
};
