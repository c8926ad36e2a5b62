#include "link/host/Trel_LinkClock.h"

#include <trel/Sys_Clock.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_CorrelatedClockMgr.h>

#include <algorithm>
#include <utility>

namespace {

constexpr std::chrono::microseconds kIdlePeriod{100'000};

} // namespace

void Trel_LinkClock::Start(std::function<std::set<std::uint32_t>()> linked, std::function<void()> onChange) {
  mLinked = std::move(linked);
  mOnChange = std::move(onChange);
  mIsStopping = false;
  mThread = std::thread([this] { Run(); });
}

void Trel_LinkClock::Stop() {
  {
    const std::lock_guard lock(mMutex);
    mIsStopping = true;
    mWakes.notify_all();
  }
  if (mThread.joinable()) {
    mThread.join();
  }
}

void Trel_LinkClock::Wake() {
  const std::lock_guard lock(mMutex);
  mIsWoken = true;
  mWakes.notify_all();
}

void Trel_LinkClock::Forget(std::uint32_t address) {
  const std::lock_guard lock(mMutex);
  mLeft.insert(address);
}

bool Trel_LinkClock::IsLocked() const noexcept { return mIsMaster || Trel_CorrelatedClockMgr::IsLocked(); }

std::optional<std::int64_t> Trel_LinkClock::RunningTime(std::int64_t hostTime) const noexcept {
  if (mIsMaster) {
    return hostTime - mZeroTime;
  }
  return IsLocked() ? std::optional(Trel_CorrelatedClockMgr::GetRunningTime(hostTime)) : std::nullopt;
}

std::optional<std::int64_t> Trel_LinkClock::HostTime(std::int64_t runningTime) const noexcept {
  if (mIsMaster) {
    return runningTime + mZeroTime;
  }
  return IsLocked() ? std::optional(Trel_CorrelatedClockMgr::GetHostTime(runningTime)) : std::nullopt;
}

std::optional<Trel_RunningTimeExchange::Status> Trel_LinkClock::GetStatus(std::uint32_t address) const {
  const std::lock_guard lock(mStatusMutex);
  const auto status = mStatus.find(address);
  return status != mStatus.end() ? std::optional(status->second) : std::nullopt;
}

void Trel_LinkClock::Run() {
  bool wasLocked = IsLocked();
  std::unique_lock lock(mMutex);
  while (!mIsStopping) {
    mIsWoken = false;
    lock.unlock();
    Trel_CommManager::DoIdle();
    if (mIsMaster) {
      Exchange();
    }
    if (const bool isLocked = IsLocked(); std::exchange(wasLocked, isLocked) != isLocked) {
      mOnChange();
    }
    lock.lock();
    mWakes.wait_for(lock, UntilDue(), [this] { return mIsStopping || mIsWoken; });
  }
}

void Trel_LinkClock::Exchange() {
  std::set<std::uint32_t> left;
  {
    const std::lock_guard lock(mMutex);
    left.swap(mLeft);
  }
  for (const std::uint32_t address : left) {
    mExchange.Forget(address);
  }
  const std::set<std::uint32_t> linked = mLinked();
  mExchange.Tick(linked, 0, mZeroTime);
  const std::lock_guard lock(mStatusMutex);
  mStatus.clear();
  for (const std::uint32_t address : linked) {
    if (const auto status = mExchange.GetStatus(address)) {
      mStatus[address] = *status;
    }
  }
}

std::chrono::microseconds Trel_LinkClock::UntilDue() const {
  if (!mIsMaster) {
    return kIdlePeriod;
  }
  const std::int64_t now = Sys_Clock::Microseconds();
  const std::int64_t due = mExchange.NextDue(); // perhaps the least or the largest number
  return std::chrono::microseconds(due <= now ? 0 : std::min<std::int64_t>(due, now + kIdlePeriod.count()) - now);
}
