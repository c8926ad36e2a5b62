#include <trel/Sys_Clock.h>
#include <trel/Sys_ThreadPriority.h>
#include <trel/Trel_CorrelatedClockMgr.h>
#include <trel/host/Trel_StartHelper.h>

#include <algorithm>
#include <limits>

namespace {

constexpr std::int64_t kLongestStep = 100'000; // microseconds
constexpr std::int64_t kLastStep = 2'000;      // less than any correction of the prediction could matter in
constexpr std::int64_t kEarliest = -(std::int64_t{1} << 61); // of what the clock knows
constexpr std::int64_t kNoHostTime = std::numeric_limits<std::int64_t>::min();

} // namespace

bool Trel_StartHelper::WaitUntilRunningTime(std::int64_t runningTime, std::int64_t* late) {
  const Sys_ThreadPriority raised;
  while (Trel_CorrelatedClockMgr::IsLocked()) {
    const std::int64_t hostTime = Trel_CorrelatedClockMgr::GetHostTime(runningTime);
    if (hostTime == kNoHostTime) {
      return false;
    }
    const std::int64_t now = Sys_Clock::Microseconds();
    if (hostTime <= now + kLastStep) {
      const std::int64_t howLate = WaitUntilHostTime(hostTime);
      if (late != nullptr) {
        *late = howLate;
      }
      return true;
    }
    Sys_Clock::WaitUntil(std::min(hostTime - kLastStep, now + kLongestStep));
  }
  return false;
}

std::int64_t Trel_StartHelper::WaitUntilHostTime(std::int64_t hostTime) {
  const Sys_ThreadPriority raised;
  Sys_Clock::WaitUntil(hostTime);
  return Sys_Clock::Microseconds() - std::max(hostTime, kEarliest);
}
