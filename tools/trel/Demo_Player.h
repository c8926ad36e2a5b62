#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

/// "Plays": on a thread of its own waits for an agreed running time and takes the raw time as the very first thing
/// after it. Reports it a little later, so that the reports of those that have started do not disturb the others.
class Demo_Player {
public:
  /// Returns true at the running time, or false when it cannot wait; then nothing starts.
  using Wait = std::function<bool(std::int64_t runningTime)>;
  /// `rawTime` is the actual start.
  using Report = std::function<void(std::int64_t runningTime, std::int64_t rawTime)>;

  Demo_Player(Wait wait, Report report);
  /// Waits for a start that is under way.
  ~Demo_Player();
  Demo_Player(const Demo_Player&) = delete;
  Demo_Player& operator=(const Demo_Player&) = delete;

  void Start(std::int64_t runningTime);

private:
  void Run();

  Wait mWait;
  Report mReport;
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::optional<std::int64_t> mRunningTime;
  bool mEnding = false;
  std::thread mThread;
};
