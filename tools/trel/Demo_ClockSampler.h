#pragma once

#include <nlohmann/json.hpp>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

/// Compares the running time that this system predicts with the truth, every 10 ms from the first lock of its clock on.
///
/// A sample takes the raw time once, so it does not matter when the thread is held up. The truth needs the raw time of
/// the master's running time 0, which is not known here while the samples are taken.
class Demo_ClockSampler {
public:
  using OnClock = std::function<void(std::int64_t rawTime, const nlohmann::json& clock)>;

  /// @param onClock takes a sample ten times a second, as Demo_Event::Kind::clock has it; may be empty
  Demo_ClockSampler(std::function<void()> onLocked, OnClock onClock);
  ~Demo_ClockSampler() { Stop(); }
  Demo_ClockSampler(const Demo_ClockSampler&) = delete;
  Demo_ClockSampler& operator=(const Demo_ClockSampler&) = delete;

  void Stop();
  /// |predicted running time - true running time| of each sample, microseconds. After Stop.
  std::vector<std::int64_t> Errors(std::int64_t epoch) const;
  /// What the system took for the largest possible error of each sample, where it could tell. After Stop.
  const std::vector<std::int64_t>& ErrorBounds() const { return mErrorBounds; }

private:
  void Run();
  void TakeSample(std::int64_t rawTime);
  void TellClock(std::int64_t rawTime) const;

  std::function<void()> mOnLocked;
  OnClock mOnClock;
  bool mHasLocked = false;
  std::vector<std::int64_t> mDifferences; // predicted running time minus raw time
  std::vector<std::int64_t> mErrorBounds;
  std::mutex mMutex;
  std::condition_variable mStopped;
  bool mStop = false;
  std::thread mThread;
};
