#pragma once

#include <trel/host/Trel_RunningTimeExchange.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

/// The master's running time, as this system knows it, and the thread that keeps it known: it runs the idle loop, and
/// on a master the exchange. Thread-safe; what is noexcept waits for nothing.
class Trel_LinkClock {
public:
  /// @param zeroTime master: host time of running time 0
  Trel_LinkClock(bool isMaster, std::int64_t zeroTime, const Trel_RunningTimeExchange::Settings& settings)
      : mIsMaster(isMaster), mZeroTime(zeroTime), mExchange(settings) {}

  // These throw std::system_error when there is no thread to be had.
  /// @param linked tells whose clocks to keep
  /// @param onChange is called when the clock of this system has got or lost its lock
  void Start(std::function<std::set<std::uint32_t>()> linked, std::function<void()> onChange);
  void Stop();
  /// Another system is linked: the exchange with it begins at once.
  void Wake();
  /// A system has left in order.
  void Forget(std::uint32_t address);

  bool IsLocked() const noexcept;
  /// Nothing while the clock is not locked.
  std::optional<std::int64_t> RunningTime(std::int64_t hostTime) const noexcept;
  std::optional<std::int64_t> HostTime(std::int64_t runningTime) const noexcept;
  /// Of the exchange with a system.
  std::optional<Trel_RunningTimeExchange::Status> GetStatus(std::uint32_t address) const;

private:
  void Run();
  void Exchange();
  std::chrono::microseconds UntilDue() const;

  const bool mIsMaster;
  const std::int64_t mZeroTime;
  std::function<std::set<std::uint32_t>()> mLinked;
  std::function<void()> mOnChange;

  std::mutex mMutex; // guards the next three
  std::condition_variable mWakes;
  bool mIsStopping = false;
  bool mIsWoken = false;
  std::set<std::uint32_t> mLeft;

  Trel_RunningTimeExchange mExchange; // of the thread
  mutable std::mutex mStatusMutex;
  std::map<std::uint32_t, Trel_RunningTimeExchange::Status> mStatus;
  std::thread mThread;
};
