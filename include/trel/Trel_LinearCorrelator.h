#pragma once

#include <trel/Trel_Export.h>

#include <cstdint>
#include <deque>

/// Fits a straight line through a sliding window of (local host time, remote running time) pairs by least
/// squares, converts times of one scale into the other along it, and tells whether the two clocks are locked.
///
/// All times are signed microseconds. The sums behind the fit are exact below 2^46 us (two years) for a window of 25
/// measurements, so a line is as good at that uptime as near time zero; beyond, the error grows slowly.
///
/// Not thread-safe: calls for one instance come from one thread at a time. Additions allocate; predictions are constant
/// time and allocate nothing. No operation reports an error.
class TREL_EXPORT Trel_LinearCorrelator {
public:
  /// One pair of simultaneous times.
  struct Measurement {
    double mLocal;  ///< local host time, microseconds
    double mRemote; ///< remote running time at that instant, microseconds
  };

  /// Which way a measurement moves the running sums. Any value but eProcess_Add removes.
  enum EProcess : std::int32_t { eProcess_Remove = 0, eProcess_Add = 1 };

  /// A fitted line by value, for readers that must not touch the correlator itself.
  ///
  /// Predictions add 0.5 and truncate toward zero: half up for positive results, while a negative result is rounded
  /// toward zero after the 0.5 has been added. A result that is undefined or outside the 64-bit range becomes the
  /// smallest 64-bit value. Reentrant and real-time-safe.
  struct TREL_EXPORT Line {
    double mSlope = 1.0;        ///< remote microseconds per local microsecond
    double mOffset = 0.0;       ///< remote time at local time 0, microseconds
    bool mIsCorrelated = false; ///< the clocks are locked

    /// The remote running time at a local host time.
    [[nodiscard]] std::int64_t PredictRemote(std::int64_t local) const noexcept;

    /// The local host time at a remote running time.
    [[nodiscard]] std::int64_t PredictLocal(std::int64_t remote) const noexcept;
  };

  /// A sum held without rounding as the unevaluated sum of two doubles, so that differences of large sums do not
  /// cancel.
  struct ExactSum {
    double mHigh = 0.0;
    double mLow = 0.0;
  };

  /// @param maxMeasurements the window's capacity; 0 or less keeps only the newest measurement.
  explicit Trel_LinearCorrelator(std::int64_t maxMeasurements);
  Trel_LinearCorrelator(const Trel_LinearCorrelator&) = default;
  Trel_LinearCorrelator& operator=(const Trel_LinearCorrelator&) = default;
  virtual ~Trel_LinearCorrelator();

  /// Adds a measurement, dropping the oldest one when the window is full. The line is recalculated by the next query.
  void AddMeasurement(std::int64_t local, std::int64_t remote);

  /// The remote running time at a local host time, rounded as Line says; the identity while there is no measurement.
  std::int64_t PredictRemote(std::int64_t local);

  /// The local host time at a remote running time, rounded as Line says; the identity while there is no measurement.
  std::int64_t PredictLocal(std::int64_t remote);

  /// Whether the clocks are locked: at least four measurements whose correlation coefficient is less than 0.005 away
  /// from 1.
  bool IsCorrelated();

  /// The present line, recalculated first when measurements arrived since the last calculation.
  Line GetLine();

  /// Microseconds from the oldest measurement to the present moment, divided by the number of measurements: the period
  /// grows while no measurements arrive. 10 000 000 while there is none.
  std::int64_t GetAverageMeasurementPeriod() const;

  /// Forgets every measurement; the line becomes the identity and is not correlated. The capacity is kept.
  void Reset();

protected:
  /// Adds a measurement's contributions to the sums, or subtracts them. The window is left alone.
  void ProcessMeasurement(const Measurement& measurement, EProcess process);

  /// Fits the line to the sums.
  void Calculate();

  /// Builds the sums anew from the window.
  void DoRefresh();

private:
  std::deque<Measurement> mHistory; // oldest at the front
  double mOffset = 0.0;
  double mSlope = 1.0;
  bool mIsCorrelated = false;
  bool mNeedsCalculate = false;
  std::int64_t mMaxMeasurements;
  ExactSum mSumX;
  ExactSum mSumY;
  ExactSum mSumXX;
  ExactSum mSumYY;
  ExactSum mSumXY;
  std::int32_t mAddsSinceRefresh = 0;
};
