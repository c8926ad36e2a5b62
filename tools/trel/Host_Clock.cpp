#include "Host_Clock.h"

#include "ClockTimes.h"

#include <trel/Trel_CorrelatedClockMgr.h>
#include <trel/host/Trel_StartHelper.h>

#include <algorithm>
#include <utility>

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

std::map<std::uint32_t, std::int64_t> Host_Clock::TakeRoundTrips(const std::set<std::uint32_t>& addresses) {
  std::erase_if(mVouched, [&](const auto& known) { return !addresses.contains(known.first); });
  std::map<std::uint32_t, std::int64_t> roundTrips;
  for (const std::uint32_t address : addresses) {
    const auto status = mExchange.GetStatus(address);
    if (status && std::exchange(mVouched[address], status->mVouched) < status->mVouched) {
      roundTrips[address] = status->mLastVouchedRoundTrip;
    }
  }
  return roundTrips;
}

std::chrono::microseconds Host_Clock::UntilDue(std::chrono::microseconds longest) const {
  const std::int64_t now = Sys_Clock::Microseconds();
  const std::int64_t due = mExchange.NextDue(); // perhaps the least or the largest number
  return std::chrono::microseconds(due <= now ? 0 : std::min<std::int64_t>(due, now + longest.count()) - now);
}
