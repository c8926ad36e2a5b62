#include "Host_Clock.h"

#include "ClockTimes.h"

#include <trel/Trel_CorrelatedClockMgr.h>
#include <trel/host/Trel_StartHelper.h>

#include <algorithm>

namespace {

// Seldom enough that 64 satellites cost the master little, often enough to keep them at their strictest.
constexpr Trel_RunningTimeExchange::Settings kSettings = {.mInterval = 500'000};

} // namespace

Host_Clock::Host_Clock(bool isMaster) : mIsMaster(isMaster), mEpoch(Sys_Clock::Microseconds()), mExchange(kSettings) {}

bool Host_Clock::IsLocked() const { return mIsMaster || Trel_CorrelatedClockMgr::IsLocked(); }

std::optional<std::int64_t> Host_Clock::RunningTime(std::int64_t hostTime) const {
  return mIsMaster ? hostTime - mEpoch : PredictedRunningTime(hostTime);
}

std::optional<std::int64_t> Host_Clock::HostTime(std::int64_t runningTime) const {
  return mIsMaster ? runningTime + mEpoch : PredictedHostTime(runningTime);
}

bool Host_Clock::WaitUntil(std::int64_t runningTime) const {
  if (!mIsMaster) {
    return Trel_StartHelper::WaitUntilRunningTime(runningTime);
  }
  Trel_StartHelper::WaitUntilHostTime(runningTime + mEpoch);
  return true;
}

void Host_Clock::Tick(const std::set<std::uint32_t>& addresses) {
  if (mIsMaster) {
    mExchange.Tick(addresses, 0, mEpoch);
  }
}

std::chrono::microseconds Host_Clock::UntilDue() const {
  return std::chrono::microseconds(std::max<std::int64_t>(mExchange.NextDue() - Sys_Clock::Microseconds(), 0));
}
