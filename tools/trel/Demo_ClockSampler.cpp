#include "Demo_ClockSampler.h"

#include <trel/Sys_Clock.h>
#include <trel/Trel_CorrelatedClockMgr.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <utility>

namespace {

constexpr std::chrono::milliseconds kPeriod{10};
constexpr std::int64_t kFar = std::int64_t{1} << 61; // an undefined prediction is further away; keeps sums in range

} // namespace

Demo_ClockSampler::Demo_ClockSampler(std::function<void()> onLocked)
    : mOnLocked(std::move(onLocked)), mThread([this] { Run(); }) {}

void Demo_ClockSampler::Stop() {
  {
    const std::lock_guard lock(mMutex);
    mStop = true;
  }
  mStopped.notify_one();
  if (mThread.joinable()) {
    mThread.join();
  }
}

std::vector<std::int64_t> Demo_ClockSampler::Errors(std::int64_t epoch) const {
  std::vector<std::int64_t> errors;
  errors.reserve(mDifferences.size());
  for (const std::int64_t difference : mDifferences) {
    errors.push_back(std::abs(difference + epoch));
  }
  return errors;
}

void Demo_ClockSampler::Run() {
  bool hasLocked = false;
  auto next = std::chrono::steady_clock::now();
  std::unique_lock lock(mMutex);
  while (!mStopped.wait_until(lock, next += kPeriod, [this] { return mStop; })) {
    if (!hasLocked && Trel_CorrelatedClockMgr::IsLocked()) {
      hasLocked = true;
      mOnLocked();
    }
    if (hasLocked) {
      const std::int64_t raw = Sys_Clock::RawMicroseconds();
      const std::int64_t predicted = Trel_CorrelatedClockMgr::GetRunningTime(Sys_Clock::FromRaw(raw));
      mDifferences.push_back(std::clamp(predicted, -kFar, kFar) - raw);
    }
  }
}
