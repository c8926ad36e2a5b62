#include <trel/Sys_Clock.h>
#include <trel/Trel_CorrelatedClockMgr.h>
#include <trel/host/Trel_StartHelper.h>

#include <algorithm>
#include <limits>

namespace {

constexpr std::int64_t kLongestStep = 100'000; // microseconds
constexpr std::int64_t kLastStep = 2'000;      // less than any correction of the prediction could matter in
constexpr std::int64_t kNoHostTime = std::numeric_limits<std::int64_t>::min();

} // namespace

bool Trel_StartHelper::WaitUntilRunningTime(std::int64_t runningTime) {
  while (Trel_CorrelatedClockMgr::IsLocked()) {
    const std::int64_t hostTime = Trel_CorrelatedClockMgr::GetHostTime(runningTime);
    if (hostTime == kNoHostTime) {
      return false;
    }
    const std::int64_t now = Sys_Clock::Microseconds();
    if (hostTime <= now + kLastStep) {
      WaitUntilHostTime(hostTime);
      return true;
    }
    Sys_Clock::WaitUntil(std::min(hostTime - kLastStep, now + kLongestStep));
  }
  return false;
}

void Trel_StartHelper::WaitUntilHostTime(std::int64_t hostTime) { Sys_Clock::WaitUntil(hostTime); }
