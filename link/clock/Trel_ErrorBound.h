#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

/// How far the line through a window of measurements may be from the truth.
///
/// A prediction is a weighted sum of the measured remote times, so its error is the same sum of their errors. Each of
/// these is at most half of what the round trip lasted longer than an undisturbed one, whichever way was held up; the
/// sum of the weights' magnitudes times these halves therefore holds whatever the delays were. The weights grow with
/// the distance from the window, and with them the bound: that is the uncertainty of the slope. Where residuals are
/// larger than the round trips explain, they count instead.
///
/// What it takes for granted: a round trip as short as an undisturbed one has been seen; the two ways then take the
/// same time (a constant difference is invisible); and the rate of one clock against the other changes by no more than
/// 0.1 ppm each second.
///
/// Times are microseconds. Not thread-safe; allocates nothing.
class Trel_ErrorBound {
public:
  static constexpr std::size_t kMostMeasurements = 25;

  struct Measurement {
    double mLocal;
    double mRemote;
    double mMaxError; ///< of mRemote, as the round trip tells it; 0 when it is not known
  };

  Trel_ErrorBound() = default;
  /// @param window the newest kMostMeasurements of it count
  explicit Trel_ErrorBound(std::span<const Measurement> window);

  /// Of the prediction at a local time; infinite for fewer than three measurements and without a line.
  double At(double local) const;

  /// How much more than the line says the remote time may change between two local times of this distance.
  double OfChange(double distance) const;

  double Slope() const { return mSlope; }

  /// Standard deviation of the remote times from the line; 0 for fewer than three measurements.
  double ResidualDeviation() const { return mResidualDeviation; }

private:
  struct Point {
    double mDistance; // local, from the mean
    double mMaxError;
  };

  std::span<const Point> Points() const { return {mPoints.data(), mCount}; }

  std::array<Point, kMostMeasurements> mPoints = {};
  std::size_t mCount = 0;
  double mMeanLocal = 0.0;
  double mSumOfSquares = 0.0; // of the distances
  double mSlope = 1.0;
  double mResidualDeviation = 0.0;
};
