#include "Demo_ClockSampler.h"

#include "Report_ClockFields.h"

#include <trel/Sys_Clock.h>
#include <trel/Trel_CorrelatedClockMgr.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <utility>

namespace {

constexpr std::chrono::milliseconds kPeriod{10};
constexpr int kSamplesToTellTheClock = 10;
constexpr std::int64_t kFar = std::int64_t{1} << 61; // an undefined prediction is further away; keeps sums in range

/// Predicted running time minus raw time.
std::int64_t DifferenceAt(std::int64_t rawTime) {
  const std::int64_t predicted = Trel_CorrelatedClockMgr::GetRunningTime(Sys_Clock::FromRaw(rawTime));
  return std::clamp(predicted, -kFar, kFar) - rawTime;
}

} // namespace

Demo_ClockSampler::Demo_ClockSampler(std::function<void()> onLocked, OnClock onClock)
    : mOnLocked(std::move(onLocked)), mOnClock(std::move(onClock)), mThread([this] { Run(); }) {}

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
  auto next = std::chrono::steady_clock::now();
  int count = 0;
  std::unique_lock lock(mMutex);
  while (!mStopped.wait_until(lock, next += kPeriod, [this] { return mStop; })) {
    const std::int64_t rawTime = Sys_Clock::RawMicroseconds();
    TakeSample(rawTime);
    if (mOnClock && ++count % kSamplesToTellTheClock == 0) {
      TellClock(rawTime);
    }
  }
}

void Demo_ClockSampler::TakeSample(std::int64_t rawTime) {
  if (!mHasLocked && Trel_CorrelatedClockMgr::IsLocked()) {
    mHasLocked = true;
    mOnLocked();
  }
  if (!mHasLocked) {
    return;
  }
  mDifferences.push_back(DifferenceAt(rawTime));
  const std::int64_t bound = Trel_CorrelatedClockMgr::GetErrorBound(Sys_Clock::FromRaw(rawTime));
  if (bound != Trel_ClockStatus::kNoErrorBound) {
    mErrorBounds.push_back(bound);
  }
}

void Demo_ClockSampler::TellClock(std::int64_t rawTime) const {
  const Trel_ClockStatus status = Trel_CorrelatedClockMgr::GetStatus(Sys_Clock::FromRaw(rawTime));
  nlohmann::json clock = Report_ClockFields(status);
  if (status.mIsLocked) {
    clock["error_us"] = DifferenceAt(rawTime);
  }
  mOnClock(rawTime, clock);
}
