#pragma once

#include "tools/trel/common/Output_File.h"
#include "tools/trel/host/Host_EventSink.h"
#include "tools/trel/host/Host_JsonSink.h"

#include <mutex>
#include <stop_token>
#include <string>
#include <thread>

/// Records everything that a host tells, samples included, for a report, and on a satellite the clock four times a
/// second.
class Host_RecordSink : public Host_EventSink {
public:
  /// Throws std::runtime_error when the file cannot be written.
  explicit Host_RecordSink(const std::string& file);
  void Take(const Host_Event& event) override;
  bool TakesSamples() const override { return true; }
  bool HasFailed() const override { return !mFile.Problem().empty(); }

private:
  void RecordClock(const std::stop_token& stop);

  std::mutex mMutex;
  Output_File mFile;     // guarded by mMutex
  Host_JsonSink mWriter; // writes to it
  std::jthread mClock;   // once the satellite is ready
};
