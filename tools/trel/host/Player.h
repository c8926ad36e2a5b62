#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

/// "Plays": on a thread of its own waits for an agreed running time and takes the raw time as the very first thing
/// after it. Reports it a little later, so that the reports of those that have started do not disturb the others.
class Player {
public:
  /// The host time of a running time; nothing while it is not known.
  using HostTimeOf = std::function<std::optional<std::int64_t>(std::int64_t runningTime)>;
  /// Called shortly before the running time. Returns true at the running time, or false when it cannot wait; then
  /// nothing starts.
  using Wait = std::function<bool(std::int64_t runningTime)>;
  /// `rawTime` is the actual start.
  using Report = std::function<void(std::int64_t runningTime, std::int64_t rawTime)>;

  Player(HostTimeOf hostTimeOf, Wait wait, Report report);
  /// Gives up a start that is under way.
  ~Player();
  Player(const Player&) = delete;
  Player& operator=(const Player&) = delete;

  /// Replaces a start that is under way.
  void Start(std::int64_t runningTime);
  /// Gives up a start that is under way, until a moment before it.
  void Cancel();

private:
  void Begin(std::int64_t runningTime);
  void Run();
  /// Waits until the start is near. False when it has been given up or replaced.
  bool WaitUntilNear(std::unique_lock<std::mutex>& lock, std::int64_t runningTime);

  HostTimeOf mHostTimeOf;
  Wait mWait;
  Report mReport;
  std::mutex mMutex;
  std::condition_variable mChanged;
  std::optional<std::int64_t> mRunningTime;
  bool mEnding = false;
  std::thread mThread;
};
