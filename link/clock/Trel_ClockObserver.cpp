#include "link/clock/Trel_ClockObserver.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace {

constexpr std::size_t kRoundTripsKept = 100;
constexpr std::int64_t kUnknownRoundTrip = 2'000; // of a measurement that a host has made in its own way
constexpr double kUnseenExcess = 8.0; // of the shortest of n round trips: this times the mean excess, over n
constexpr double kLargestBound = 9e18;

double HalfRoundTrip(const std::optional<std::int64_t>& roundTripTime) {
  return static_cast<double>(roundTripTime.value_or(kUnknownRoundTrip)) / 2.0;
}

double Excess(const std::optional<std::int64_t>& roundTripTime, double smallest) {
  return roundTripTime ? static_cast<double>(*roundTripTime) - smallest : 0.0;
}

std::int64_t ToBound(double bound) {
  return bound < kLargestBound ? static_cast<std::int64_t>(std::ceil(bound)) : Trel_ClockStatus::kNoErrorBound;
}

} // namespace

void Trel_ClockObserver::RunningTimeArrived(std::int64_t hostTime) {
  if (mAwaitsVoucher) {
    ++mCounts.rejectedNotVouchedFor;
    mCounts.lastRejection = eTrel_ClockRejection_NotVouchedFor;
    const bool isLong =
        mLastVouchedFor && Trel_ClockState::Age(*mLastVouchedFor, hostTime) > Trel_ClockState::kAgeOfLoss;
    if (isLong || mSinceNewest == eTrel_ClockReason_NoExchange) {
      mSinceNewest = eTrel_ClockReason_NotVouchedFor;
    }
  }
  mAwaitsVoucher = true;
  mLastArrival = hostTime;
}

void Trel_ClockObserver::RoundTripTooLong(std::int64_t roundTripTime, std::int64_t limit) {
  RoundTripAccepted(roundTripTime, limit);
  ++mCounts.rejectedRoundTripTooLong;
  mCounts.lastRejection = eTrel_ClockRejection_RoundTripTooLong;
  mSinceNewest = eTrel_ClockReason_RoundTripsTooLong;
}

void Trel_ClockObserver::RoundTripAccepted(std::int64_t roundTripTime, std::int64_t limit) {
  mAwaitsVoucher = false;
  mLastVouchedFor = mLastArrival;
  mCounts.lastRoundTrip = roundTripTime;
  mCounts.roundTripLimit = limit;
}

void Trel_ClockObserver::MeasurementAdded(std::int64_t hostTime, std::int64_t runningTime,
                                          std::optional<std::int64_t> roundTripTime, const Line& line) {
  if (roundTripTime) { // a peer may send a negative one
    roundTripTime = std::max<std::int64_t>(*roundTripTime, 0);
  }
  const Record record{hostTime, runningTime, roundTripTime, 0.0};
  const std::int64_t errorBoundBefore = mWasLocked ? GetErrorBound(hostTime) : 0;
  FindJump(record);
  mRecords.push_back(record);
  if (mRecords.size() > kRoundTripsKept) {
    mRecords.pop_front();
  }
  ++mSinceJump;
  FitErrorBound();

  mWasLocked = line.mIsCorrelated;
  mState.Add({.hostTime = hostTime,
              .errorBoundBefore = errorBoundBefore,
              .errorBound = GetErrorBound(hostTime),
              .measurements = static_cast<std::int64_t>(WindowSize()),
              .isLocked = line.mIsCorrelated,
              .holdsJump = mHasJumped && mSinceJump < WindowSize()});
  ++mCounts.accepted;
  mSinceNewest = eTrel_ClockReason_NoExchange;
}

void Trel_ClockObserver::Reset() {
  mRecords.clear();
  mErrorBound = {};
  mState = {};
  mWasLocked = false;
  mHasJumped = false;
  mSinceNewest = eTrel_ClockReason_NoExchange;
}

Trel_ClockStatus Trel_ClockObserver::GetStatus(std::int64_t hostTime, const Line& line) const {
  Trel_ClockStatus status = mCounts;
  status.hostTime = hostTime;
  status.isLocked = line.mIsCorrelated;
  status.errorBound = GetErrorBound(hostTime);
  const Trel_ClockState::Verdict verdict = mState.At(hostTime, status.errorBound);
  status.state = verdict.state;
  status.reason = verdict.reason;
  if (verdict.reason == eTrel_ClockReason_NoExchange && mLastArrival &&
      Trel_ClockState::Age(*mLastArrival, hostTime) <= Trel_ClockState::kAgeOfLoss) {
    status.reason = mSinceNewest;
  }
  if (mRecords.empty()) {
    return status;
  }
  status.offset = static_cast<double>(hostTime) * (1.0 - line.mSlope) - line.mOffset;
  status.rate = (1.0 / line.mSlope - 1.0) * 1e6;
  status.measurements = static_cast<std::int64_t>(WindowSize());
  status.span = Trel_ClockState::Age(mRecords[mRecords.size() - WindowSize()].mHostTime, mRecords.back().mHostTime);
  status.age = Trel_ClockState::Age(mRecords.back().mHostTime, hostTime);
  status.residualDeviation = mErrorBound.ResidualDeviation();
  status.smallestRoundTrip = SmallestRoundTrip();
  return status;
}

std::int64_t Trel_ClockObserver::GetErrorBound(std::int64_t hostTime) const {
  return mWasLocked ? ToBound(mErrorBound.At(static_cast<double>(hostTime))) : Trel_ClockStatus::kNoErrorBound;
}

std::size_t Trel_ClockObserver::WindowSize() const {
  return std::min(mRecords.size(), Trel_ErrorBound::kMostMeasurements);
}

std::int64_t Trel_ClockObserver::SmallestRoundTrip() const {
  std::optional<std::int64_t> smallest;
  for (const Record& record : mRecords) {
    if (record.mRoundTripTime && (!smallest || *record.mRoundTripTime < *smallest)) {
      smallest = record.mRoundTripTime;
    }
  }
  return smallest.value_or(0);
}

void Trel_ClockObserver::FindJump(const Record& record) {
  if (!mWasLocked) {
    return;
  }
  const Record& newest = mRecords.back();
  const double passed = static_cast<double>(record.mHostTime) - static_cast<double>(newest.mHostTime);
  const double remotePassed = static_cast<double>(record.mRunningTime) - static_cast<double>(newest.mRunningTime);
  const double jump = passed - remotePassed / mErrorBound.Slope();
  const double explained =
      HalfRoundTrip(record.mRoundTripTime) + HalfRoundTrip(newest.mRoundTripTime) + mErrorBound.OfChange(passed);
  if (!(std::abs(jump) > explained)) {
    return;
  }
  ++mCounts.jumps;
  mCounts.lastJump = std::abs(jump) < kLargestBound ? std::llround(jump) : 0;
  mHasJumped = true;
  mSinceJump = 0;
  for (Record& before : mRecords) {
    before.mJumpError += std::abs(jump) + explained;
  }
}

void Trel_ClockObserver::FitErrorBound() {
  // The fewer round trips there are, the longer the shortest of them still is than an undisturbed one.
  const auto smallest = static_cast<double>(SmallestRoundTrip());
  double sumOfExcesses = 0.0;
  for (const Record& record : mRecords) {
    sumOfExcesses += Excess(record.mRoundTripTime, smallest);
  }
  const auto count = static_cast<double>(mRecords.size());
  const double unseen = kUnseenExcess * sumOfExcesses / count / count;

  std::array<Trel_ErrorBound::Measurement, Trel_ErrorBound::kMostMeasurements> window = {};
  const std::size_t size = WindowSize();
  for (std::size_t i = 0; i < size; ++i) {
    const Record& record = mRecords[mRecords.size() - size + i];
    window[i] = {.mLocal = static_cast<double>(record.mHostTime),
                 .mRemote = static_cast<double>(record.mRunningTime),
                 .mMaxError = (Excess(record.mRoundTripTime, smallest) + unseen) / 2.0 + record.mJumpError};
  }
  mErrorBound = Trel_ErrorBound(std::span(window).first(size));
}
