#include "tools/trel/host/Host_ClockSampler.h"

#include "tools/trel/common/ClockFields.h"

#include <trel/Sys_Clock.h>
#include <trel/Trel_CorrelatedClockMgr.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <utility>

namespace {

constexpr std::chrono::milliseconds kPeriod{10};
constexpr int kSamplesToTellOne = 10;
constexpr std::int64_t kFar = std::int64_t{1} << 61; // an undefined prediction is further away; keeps sums in range

/// Predicted running time minus raw time.
std::int64_t DifferenceAt(std::int64_t rawTime) {
  const std::int64_t predicted = Trel_CorrelatedClockMgr::GetRunningTime(Sys_Clock::FromRaw(rawTime));
  return std::clamp(predicted, -kFar, kFar) - rawTime;
}

} // namespace

Host_ClockSampler::Host_ClockSampler(OnSample onSample) : mOnSample(std::move(onSample)), mThread([this] { Run(); }) {}

Host_ClockSampler::~Host_ClockSampler() {
  {
    const std::lock_guard lock(mMutex);
    mIsEnding = true;
  }
  mEnds.notify_one();
  mThread.join();
}

std::optional<Host_ClockSampler::Figures> Host_ClockSampler::GetFigures(std::int64_t epoch) const {
  std::vector<std::int64_t> errors;
  std::vector<std::int64_t> bounds;
  {
    const std::lock_guard lock(mMutex);
    errors = mDifferences;
    bounds = mErrorBounds;
  }
  if (errors.empty()) {
    return std::nullopt;
  }
  for (std::int64_t& error : errors) {
    error = std::abs(error + epoch);
  }
  return Figures{.error = PercentilesOf(std::move(errors)),
                 .errorBound = bounds.empty() ? Percentiles() : PercentilesOf(std::move(bounds))};
}

void Host_ClockSampler::Run() {
  auto next = std::chrono::steady_clock::now();
  int count = 0;
  std::unique_lock lock(mMutex);
  while (!mEnds.wait_until(lock, next += kPeriod, [this] { return mIsEnding; })) {
    const std::int64_t rawTime = Sys_Clock::RawMicroseconds();
    TakeSample(rawTime);
    if (mOnSample && ++count % kSamplesToTellOne == 0) {
      TellSample(rawTime);
    }
  }
}

void Host_ClockSampler::TakeSample(std::int64_t rawTime) {
  if (mDifferences.empty() && !Trel_CorrelatedClockMgr::IsLocked()) {
    return;
  }
  mDifferences.push_back(DifferenceAt(rawTime));
  const std::int64_t bound = Trel_CorrelatedClockMgr::GetErrorBound(Sys_Clock::FromRaw(rawTime));
  if (bound != Trel_ClockStatus::kNoErrorBound) {
    mErrorBounds.push_back(bound);
  }
}

void Host_ClockSampler::TellSample(std::int64_t rawTime) const {
  const Trel_ClockStatus status = Trel_CorrelatedClockMgr::GetStatus(Sys_Clock::FromRaw(rawTime));
  nlohmann::json fields = ClockFields(status);
  if (status.isLocked) {
    fields["error_us"] = DifferenceAt(rawTime);
  }
  mOnSample(rawTime, std::move(fields));
}
