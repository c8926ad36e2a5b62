#include <trel/Trel_CorrelatedClockMgr.h>

#include "link/clock/Trel_ClockObserver.h"
#include "link/clock/Trel_PublishedLine.h"
#include "link/clock/Trel_Trace.h"

#include <trel/Cmn_Assert.h>
#include <trel/Sys_Clock.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_LinearCorrelator.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>

namespace {

constexpr std::int64_t kWindowCapacity = 25;
constexpr std::int64_t kPeriodWithoutCorrelator = 10'000'000; // microseconds

// A round trip is accepted up to this many microseconds, and up to more when measurements are rare.
constexpr std::int64_t kBaseLimit = 2'000;
constexpr std::int64_t kPeriodOfBaseLimit = 500'000;
constexpr double kLimitGrowth = 0.62;

constexpr std::int64_t kOldestArrival = 2'000; // microseconds, that is believed

constexpr std::int64_t kLongestWait = 1'000'000'000'000'000; // microseconds, 30 years: far from any overflow

// What writers change, under the mutex.
struct State {
  std::mutex mMutex;
  std::condition_variable mChanged; // a measurement was added, or the manager terminated
  std::uint64_t mTerminations = 0;
  std::unique_ptr<Trel_LinearCorrelator> mLinearCorrelator;
  Trel_ClockObserver mObserver;
  // An exchange on probation: it becomes a measurement when the master vouches for it.
  std::int64_t mLastUnvalidatedRunningTime = 0;
  std::int64_t mLastUnvalidatedHostTime = 0;
};

// Never destroyed, so that threads which outlive the static objects find it whole.
State& TheState() {
  static auto* const state = new State;
  return *state;
}

// Nothing is published while there is no correlator. Both have no destruction.
constinit Trel_PublishedLine sPublishedLine;
constinit std::atomic<std::int64_t> sMaxNetworkLatencyForNonMaster{0};

// The functions named ...Locked are called with the mutex held.

void PublishLocked(State& state) { sPublishedLine.Publish(state.mLinearCorrelator->GetLine()); }

void InitializeLocked(State& state) {
  if (!state.mLinearCorrelator) {
    state.mLinearCorrelator = std::make_unique<Trel_LinearCorrelator>(kWindowCapacity);
    PublishLocked(state);
  }
  sMaxNetworkLatencyForNonMaster.store(0, std::memory_order_relaxed);
}

Trel_LinearCorrelator& CorrelatorLocked(State& state) {
  if (!state.mLinearCorrelator) {
    InitializeLocked(state);
  }
  return *state.mLinearCorrelator;
}

void AddMeasurementLocked(State& state, std::int64_t runningTime, std::int64_t hostTime,
                          std::optional<std::int64_t> roundTripTime = std::nullopt) {
  CorrelatorLocked(state).AddMeasurement(hostTime, runningTime);
  PublishLocked(state);
  state.mObserver.MeasurementAdded(hostTime, runningTime, roundTripTime, state.mLinearCorrelator->GetLine());
  state.mChanged.notify_all();
}

Trel_ClockStatus StatusLocked(State& state, std::int64_t hostTime) {
  if (!state.mLinearCorrelator) {
    return {.hostTime = hostTime};
  }
  return state.mObserver.GetStatus(hostTime, state.mLinearCorrelator->GetLine());
}

// Without a correlator a query has the effects that making one has on its results, but makes none: whoever waits for
// the lock of a terminated manager would wait for nothing.
Trel_LinearCorrelator::Line LineInForce() {
  if (const auto line = sPublishedLine.Read()) {
    return *line;
  }
  State& state = TheState();
  const std::lock_guard lock(state.mMutex);
  if (state.mLinearCorrelator) {
    return state.mLinearCorrelator->GetLine();
  }
  sMaxNetworkLatencyForNonMaster.store(0, std::memory_order_relaxed);
  return {};
}

std::int64_t RoundTripLimitLocked(const State& state) {
  const std::int64_t period =
      state.mLinearCorrelator ? state.mLinearCorrelator->GetAverageMeasurementPeriod() : kPeriodWithoutCorrelator;
  if (period <= kPeriodOfBaseLimit) {
    return kBaseLimit;
  }
  return kBaseLimit +
         static_cast<std::int64_t>(std::pow(static_cast<double>(period - kPeriodOfBaseLimit), kLimitGrowth));
}

// A peer may send any number, so the sum wraps.
std::int64_t AddHalfRoundTrip(std::int64_t runningTime, std::int64_t roundTripTime) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(runningTime) +
                                   static_cast<std::uint64_t>(roundTripTime >> 1));
}

/// What this system itself does for an exchange lies on both sides of this moment.
std::int64_t HostTimeOf(const Trel_Command& command, std::int64_t now) {
  const std::int64_t arrival = command.GetArrivalTime();
  const bool isBelieved = arrival != 0 && arrival <= now && arrival >= now - kOldestArrival;
  return isBelieved ? arrival + (now - arrival) / 2 : now;
}

void HandleUpdateRunningTime(const Trel_Cmd_UpdateRunningTime& command, std::int64_t hostTime) {
  State& state = TheState();
  const std::lock_guard lock(state.mMutex);
  state.mLastUnvalidatedRunningTime = command.GetRunningTime();
  state.mLastUnvalidatedHostTime = hostTime;
  state.mObserver.RunningTimeArrived(hostTime);
}

void HandleLastUpdateRunningTimeValid(const Trel_Cmd_LastUpdateRunningTimeValid& command) {
  const std::int64_t roundTripTime = command.GetRoundTripTime();
  State& state = TheState();
  std::unique_lock lock(state.mMutex);
  const std::int64_t limit = RoundTripLimitLocked(state);
  if (roundTripTime > sMaxNetworkLatencyForNonMaster.load(std::memory_order_relaxed)) {
    sMaxNetworkLatencyForNonMaster.store(roundTripTime, std::memory_order_relaxed);
    lock.unlock();
    Trel_Trace::Line("TREL: New Max Network Latency (non-master): %d usecs", static_cast<std::int32_t>(roundTripTime));
    lock.lock();
  }
  if (roundTripTime > limit) {
    state.mObserver.RoundTripTooLong(roundTripTime, limit);
    return;
  }
  state.mObserver.RoundTripAccepted(roundTripTime, limit);
  AddMeasurementLocked(state, AddHalfRoundTrip(state.mLastUnvalidatedRunningTime, roundTripTime),
                       state.mLastUnvalidatedHostTime, roundTripTime);
}

} // namespace

void Trel_CorrelatedClockMgr::Initialize() {
  State& state = TheState();
  const std::lock_guard lock(state.mMutex);
  InitializeLocked(state);
}

void Trel_CorrelatedClockMgr::Terminate() {
  State& state = TheState();
  const std::lock_guard lock(state.mMutex);
  state.mLinearCorrelator.reset();
  sPublishedLine.Publish(std::nullopt);
  state.mObserver = {};
  ++state.mTerminations;
  state.mChanged.notify_all();
}

void Trel_CorrelatedClockMgr::AddMeasurement(std::int64_t runningTime, std::int64_t hostTime) {
  State& state = TheState();
  const std::lock_guard lock(state.mMutex);
  AddMeasurementLocked(state, runningTime, hostTime);
}

std::int64_t Trel_CorrelatedClockMgr::GetRunningTime(std::int64_t hostTime) noexcept {
  return LineInForce().PredictRemote(hostTime);
}

std::int64_t Trel_CorrelatedClockMgr::GetHostTime(std::int64_t runningTime) noexcept {
  return LineInForce().PredictLocal(runningTime);
}

void Trel_CorrelatedClockMgr::ResetClock() {
  State& state = TheState();
  const std::lock_guard lock(state.mMutex);
  CorrelatorLocked(state).Reset();
  PublishLocked(state);
  state.mObserver.Reset();
}

bool Trel_CorrelatedClockMgr::IsLocked() noexcept { return LineInForce().mIsCorrelated; }

bool Trel_CorrelatedClockMgr::HandleTimingCommand(Trel_Command* inCommand) {
  const std::int64_t now = Sys_Clock::Microseconds();
  if (inCommand == nullptr) {
    return false;
  }

  // The numbers depend on the numbering in force, which is asked each time.
  const auto type = inCommand->GetCommandType();
  bool isTimingCommand = false;
  if (type == Trel_Cmd_UpdateRunningTime::GetCommandID()) {
    isTimingCommand = true;
    if (const auto* command = dynamic_cast<const Trel_Cmd_UpdateRunningTime*>(inCommand)) {
      HandleUpdateRunningTime(*command, HostTimeOf(*command, now));
    }
  }
  if (type == Trel_Cmd_LastUpdateRunningTimeValid::GetCommandID()) {
    isTimingCommand = true;
    if (const auto* command = dynamic_cast<const Trel_Cmd_LastUpdateRunningTimeValid*>(inCommand)) {
      HandleLastUpdateRunningTimeValid(*command);
    }
  }
  if (type == Trel_Cmd_ResetClock::GetCommandID()) {
    isTimingCommand = true;
    ResetClock();
  }

  if (isTimingCommand && !inCommand->IsSynchronous()) {
    Cmn_Assert::HandleMagicAssert(false, "inCommand->IsSynchronous()@$^$@..\\Trel_CorrelatedClockMgr", 205);
  }
  return isTimingCommand;
}

std::int64_t Trel_CorrelatedClockMgr::GetMaxNetworkLatencyForNonMaster() noexcept {
  return sMaxNetworkLatencyForNonMaster.load(std::memory_order_relaxed);
}

Trel_ClockStatus Trel_CorrelatedClockMgr::GetStatus(std::int64_t hostTime) {
  State& state = TheState();
  const std::lock_guard lock(state.mMutex);
  return StatusLocked(state, hostTime);
}

std::int64_t Trel_CorrelatedClockMgr::GetErrorBound(std::int64_t hostTime) {
  State& state = TheState();
  const std::lock_guard lock(state.mMutex);
  return state.mObserver.GetErrorBound(hostTime);
}

ETrel_ClockWait Trel_CorrelatedClockMgr::WaitUntilLocked(std::int64_t maxErrorBound, std::int64_t timeOut) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::microseconds(std::clamp<std::int64_t>(timeOut, 0, kLongestWait));
  State& state = TheState();
  std::unique_lock lock(state.mMutex);
  const std::uint64_t terminations = state.mTerminations;
  auto result = eTrel_ClockWait_TimedOut;
  state.mChanged.wait_until(lock, deadline, [&] {
    if (state.mTerminations != terminations || !state.mLinearCorrelator) {
      result = eTrel_ClockWait_Terminated;
      return true;
    }
    const Trel_ClockStatus status = StatusLocked(state, Sys_Clock::Microseconds());
    const bool isLocked = status.state == eTrel_ClockState_Locked || status.state == eTrel_ClockState_Stable;
    if (isLocked && status.errorBound < maxErrorBound) {
      result = eTrel_ClockWait_Locked;
    }
    return result == eTrel_ClockWait_Locked;
  });
  return result;
}
