#include "tools/trel/host/Host_RecordSink.h"

#include "tools/trel/common/ClockFields.h"
#include "tools/trel/common/Output_Standard.h"
#include "tools/trel/host/Host_Event.h"

#include <trel/Trel_CommManager.h>
#include <trel/Trel_CorrelatedClockMgr.h>

#include <chrono>
#include <condition_variable>

namespace {

constexpr std::chrono::milliseconds kClockPeriod{250};

}

Host_RecordSink::Host_RecordSink(const std::string& file)
    : mFile(file,
            [file](const std::string& reason) {
              Output_Standard::Say("cannot write " + file + ": " + reason + "; the recording ends here");
            }),
      mWriter(mFile) {}

void Host_RecordSink::Take(const Host_Event& event) {
  const std::lock_guard lock(mMutex);
  mWriter.Take(event);
  if (event.kind == "ready" && !Trel_CommManager::IsMasterClock()) {
    mClock = std::jthread([this](const std::stop_token& stop) { RecordClock(stop); });
  }
}

void Host_RecordSink::RecordClock(const std::stop_token& stop) {
  std::condition_variable_any never;
  std::unique_lock lock(mMutex);
  while (!stop.stop_requested()) {
    const Trel_ClockStatus status = Trel_CorrelatedClockMgr::GetStatus();
    mWriter.Take({.kind = "clock", .text = {}, .fields = ClockFields(status)});
    never.wait_for(lock, stop, kClockPeriod, [] { return false; });
  }
}
