#include "link/clock/Trel_ErrorBound.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr std::size_t kFewestMeasurements = 3;
constexpr double kRateChange = 0.1e-6 / 1e6; // 0.1 ppm each second, per microsecond
constexpr double kResolution = 0.5;          // of a measurement: each is made of whole microseconds
constexpr double kRounding = 1.0;            // of a prediction and of the clock that it is compared with

} // namespace

Trel_ErrorBound::Trel_ErrorBound(std::span<const Measurement> window) {
  window = window.last(std::min(window.size(), kMostMeasurements));
  if (window.size() < kFewestMeasurements) {
    return;
  }
  const auto n = static_cast<double>(window.size());

  // Relative to the newest measurement nothing cancels, however long the clocks have been running.
  const Measurement& newest = window.back();
  double meanLocal = 0.0;
  double meanRemote = 0.0;
  for (const Measurement& measurement : window) {
    meanLocal += (measurement.mLocal - newest.mLocal) / n;
    meanRemote += (measurement.mRemote - newest.mRemote) / n;
  }
  mMeanLocal = newest.mLocal + meanLocal;

  double sumOfProducts = 0.0;
  for (const Measurement& measurement : window) {
    const double distance = measurement.mLocal - newest.mLocal - meanLocal;
    mPoints[mCount++] = {distance, measurement.mMaxError};
    mSumOfSquares += distance * distance;
    sumOfProducts += distance * (measurement.mRemote - newest.mRemote - meanRemote);
  }
  mSlope = sumOfProducts / mSumOfSquares;

  // The line follows its measurements, so they are further from the truth than from the line.
  const double freedom = std::sqrt(n / (n - 2.0));
  double sumOfSquaredResiduals = 0.0;
  for (std::size_t i = 0; i < mCount; ++i) {
    const double residual = window[i].mRemote - newest.mRemote - meanRemote - mSlope * mPoints[i].mDistance;
    sumOfSquaredResiduals += residual * residual;
    mPoints[i].mMaxError = std::max(mPoints[i].mMaxError, std::abs(residual) * freedom) + kResolution;
  }
  mResidualDeviation = std::sqrt(sumOfSquaredResiduals / (n - 2.0));
}

double Trel_ErrorBound::At(double local) const {
  if (!(mSumOfSquares > 0.0)) {
    return std::numeric_limits<double>::infinity();
  }
  const double distance = local - mMeanLocal;
  double bound = kRounding + kRateChange / 2.0 * distance * distance;
  for (const Point& point : Points()) {
    const double weight = 1.0 / static_cast<double>(mCount) + distance * point.mDistance / mSumOfSquares;
    bound += std::abs(weight) * point.mMaxError;
  }
  return bound;
}

double Trel_ErrorBound::OfChange(double distance) const {
  if (!(mSumOfSquares > 0.0)) {
    return std::numeric_limits<double>::infinity();
  }
  const double oldest = mPoints.front().mDistance;
  double bound = kRounding + kRateChange * std::abs(distance) * (std::abs(distance) + std::abs(oldest));
  for (const Point& point : Points()) {
    bound += std::abs(distance * point.mDistance) / mSumOfSquares * point.mMaxError;
  }
  return bound;
}
