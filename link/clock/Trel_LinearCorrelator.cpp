#include <trel/Trel_LinearCorrelator.h>

#include <trel/Sys_Clock.h>

#include <cmath>
#include <limits>

// The exact sums below rely on every operation being rounded once, as written. The build turns contraction of
// expressions off for this file; reordering would break it as well.
#if defined(__FAST_MATH__)
#error "This file needs IEEE arithmetic: compile it without -ffast-math"
#endif

namespace {

using Sum = Trel_LinearCorrelator::ExactSum;

constexpr std::int64_t kPeriodWithoutMeasurements = 10'000'000; // microseconds
constexpr double kMaxCorrelationError = 0.005;
constexpr double kMeasurementsNotEnoughToLock = 3.0;

// Error-free transformations: high is the rounded result, high + low the exact one.

Sum TwoSum(double a, double b) {
  const double high = a + b;
  const double bRounded = high - a;
  const double aRounded = high - bRounded;
  return {high, (a - aRounded) + (b - bRounded)};
}

// The same for |a| >= |b|.
Sum FastTwoSum(double a, double b) {
  const double high = a + b;
  return {high, b - (high - a)};
}

Sum TwoProduct(double a, double b) {
  const double high = a * b;
  return {high, std::fma(a, b, -high)};
}

// The pair operations err by a few 2^-106 of their result at most, also when the operands cancel. Operands that are
// whole numbers have whole results, so everything below 2^103 is exact: for n measurements of magnitude t that covers
// n * n * t * t, which is 2^100 for 25 measurements at an uptime of one year.

Sum operator+(const Sum& a, const Sum& b) {
  const Sum highs = TwoSum(a.mHigh, b.mHigh);
  const Sum lows = TwoSum(a.mLow, b.mLow);
  const Sum partial = FastTwoSum(highs.mHigh, highs.mLow + lows.mHigh);
  return FastTwoSum(partial.mHigh, partial.mLow + lows.mLow);
}

Sum operator-(const Sum& a) { return {-a.mHigh, -a.mLow}; }

Sum operator-(const Sum& a, const Sum& b) { return a + -b; }

Sum operator*(const Sum& a, const Sum& b) {
  const Sum highs = TwoProduct(a.mHigh, b.mHigh);
  const double cross = std::fma(a.mHigh, b.mLow, a.mLow * b.mLow);
  return FastTwoSum(highs.mHigh, highs.mLow + std::fma(a.mLow, b.mHigh, cross));
}

Sum operator*(double a, const Sum& b) {
  const Sum high = TwoProduct(a, b.mHigh);
  return FastTwoSum(high.mHigh, std::fma(a, b.mLow, high.mLow));
}

std::int64_t Truncate(double value) {
  constexpr double kLimit = 9'223'372'036'854'775'808.0; // 2^63
  if (value >= -kLimit && value < kLimit) {
    return static_cast<std::int64_t>(value);
  }
  return std::numeric_limits<std::int64_t>::min();
}

} // namespace

std::int64_t Trel_LinearCorrelator::Line::PredictRemote(std::int64_t local) const noexcept {
  return Truncate(static_cast<double>(local) * mSlope + mOffset + 0.5);
}

std::int64_t Trel_LinearCorrelator::Line::PredictLocal(std::int64_t remote) const noexcept {
  return Truncate((static_cast<double>(remote) - mOffset) / mSlope + 0.5);
}

Trel_LinearCorrelator::Trel_LinearCorrelator(std::int64_t maxMeasurements) : mMaxMeasurements(maxMeasurements) {}

Trel_LinearCorrelator::~Trel_LinearCorrelator() = default;

void Trel_LinearCorrelator::AddMeasurement(std::int64_t local, std::int64_t remote) {
  // Compared before counting: a rebuild comes every capacity / 5 + 2 additions.
  const bool refresh = mAddsSinceRefresh > mMaxMeasurements / 5;
  ++mAddsSinceRefresh;

  if (!mHistory.empty() && static_cast<std::int64_t>(mHistory.size()) >= mMaxMeasurements) {
    if (!refresh) {
      ProcessMeasurement(mHistory.front(), eProcess_Remove);
    }
    mHistory.pop_front();
  }

  const Measurement measurement{static_cast<double>(local), static_cast<double>(remote)};
  if (!refresh) {
    ProcessMeasurement(measurement, eProcess_Add);
  }
  mHistory.push_back(measurement);

  if (refresh) {
    mAddsSinceRefresh = 0;
    DoRefresh();
  }
  mNeedsCalculate = true;
}

std::int64_t Trel_LinearCorrelator::PredictRemote(std::int64_t local) { return GetLine().PredictRemote(local); }

std::int64_t Trel_LinearCorrelator::PredictLocal(std::int64_t remote) { return GetLine().PredictLocal(remote); }

bool Trel_LinearCorrelator::IsCorrelated() { return GetLine().mIsCorrelated; }

Trel_LinearCorrelator::Line Trel_LinearCorrelator::GetLine() {
  if (mNeedsCalculate) {
    Calculate();
  }
  return {mSlope, mOffset, mIsCorrelated};
}

std::int64_t Trel_LinearCorrelator::GetAverageMeasurementPeriod() const {
  if (mHistory.empty()) {
    return kPeriodWithoutMeasurements;
  }
  const auto now = static_cast<double>(Sys_Clock::Microseconds());
  return Truncate((now - mHistory.front().mLocal) / static_cast<double>(mHistory.size()));
}

void Trel_LinearCorrelator::Reset() { *this = Trel_LinearCorrelator(mMaxMeasurements); }

void Trel_LinearCorrelator::ProcessMeasurement(const Measurement& measurement, EProcess process) {
  const double x = measurement.mLocal;
  const double y = measurement.mRemote;
  const auto move = [process](Sum& sum, const Sum& term) { sum = process == eProcess_Add ? sum + term : sum - term; };

  move(mSumX, {x, 0.0});
  move(mSumY, {y, 0.0});
  move(mSumXX, TwoProduct(x, x));
  move(mSumYY, TwoProduct(y, y));
  move(mSumXY, TwoProduct(x, y));
}

void Trel_LinearCorrelator::Calculate() {
  const auto n = static_cast<double>(static_cast<std::uint32_t>(mHistory.size()));

  // The differences cancel most of their operands' digits and must come before the rounding to double.
  const double sxy = (n * mSumXY - mSumX * mSumY).mHigh;
  const double sxx = (n * mSumXX - mSumX * mSumX).mHigh;
  const double syy = (n * mSumYY - mSumY * mSumY).mHigh;

  mSlope = n == 1.0 ? 1.0 : sxy / sxx;
  mOffset = (mSumY - mSlope * mSumX).mHigh / n;

  const double variances = sxx * syy;
  mIsCorrelated = variances > 0.0 && n > kMeasurementsNotEnoughToLock &&
                  std::abs(sxy / std::sqrt(variances) - 1.0) < kMaxCorrelationError;
  mNeedsCalculate = false;
}

void Trel_LinearCorrelator::DoRefresh() {
  mSumX = mSumY = mSumXX = mSumYY = mSumXY = {};
  for (const Measurement& measurement : mHistory) {
    ProcessMeasurement(measurement, eProcess_Add);
  }
}
