#pragma once

#include "tools/trel/common/Percentiles.h"

#include <nlohmann/json.hpp>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

/// Compares the running time that this system predicts with the truth, every 10 ms from the first lock of its clock on.
///
/// A sample takes the raw time once, so it does not matter when the thread is held up. The truth needs the raw time of
/// the master's running time 0, which is not known here while the samples are taken.
class Host_ClockSampler {
public:
  /// The fields of the clock at a raw time. With them comes `error_us`, while it is locked: predicted running time
  /// minus raw time, which is the error when the raw time of running time 0 is added.
  using OnSample = std::function<void(std::int64_t rawTime, nlohmann::json fields)>;
  /// Microseconds.
  struct Figures {
    Percentiles error{};      ///< |predicted running time - true running time|
    Percentiles errorBound{}; ///< what the system took for the largest possible one, where it could tell
  };

  /// @param onSample takes a sample ten times a second, on a thread of its own; may be empty, must not block
  explicit Host_ClockSampler(OnSample onSample);
  ~Host_ClockSampler();
  Host_ClockSampler(const Host_ClockSampler&) = delete;
  Host_ClockSampler& operator=(const Host_ClockSampler&) = delete;

  /// Of the samples so far; nothing before the first.
  /// @param epoch raw time of the master's running time 0
  std::optional<Figures> GetFigures(std::int64_t epoch) const;

private:
  void Run();
  void TakeSample(std::int64_t rawTime);
  void TellSample(std::int64_t rawTime) const;

  OnSample mOnSample;
  mutable std::mutex mMutex;              // guards what follows
  std::vector<std::int64_t> mDifferences; // predicted running time minus raw time
  std::vector<std::int64_t> mErrorBounds;
  bool mIsEnding = false;
  std::condition_variable mEnds;
  std::thread mThread;
};
