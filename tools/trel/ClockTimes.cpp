#include "ClockTimes.h"

#include <trel/Trel_CorrelatedClockMgr.h>

std::optional<std::int64_t> PredictedHostTime(std::int64_t runningTime) {
  if (!Trel_CorrelatedClockMgr::IsLocked()) {
    return std::nullopt;
  }
  return Trel_CorrelatedClockMgr::GetHostTime(runningTime);
}

std::optional<std::int64_t> PredictedRunningTime(std::int64_t hostTime) {
  if (!Trel_CorrelatedClockMgr::IsLocked()) {
    return std::nullopt;
  }
  return Trel_CorrelatedClockMgr::GetRunningTime(hostTime);
}
