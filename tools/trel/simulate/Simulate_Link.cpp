#include "tools/trel/simulate/Simulate_Link.h"

#include <trel/Sys_Clock.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_CorrelatedClockMgr.h>

#include <algorithm>
#include <cmath>

namespace {

constexpr std::uint32_t kObserved = 0x7f000002; // the first satellite
constexpr double kTimeOut = 2e6;                // of a command that is not answered
constexpr double kLossAfter = 3e6;              // of silence, a connection is lost
constexpr double kConnecting = 200e3;           // from when it can be until there is one again
constexpr double kLookEvery = 100e3;
constexpr double kSettled = 5e6; // after the first lock; from then on errors count
constexpr double kSecond = 1e6;
constexpr double kUsableBound = 20;
constexpr double kFalse = 1e3; // error that a clock which is locked should know of

double sShown = 0; // by the clock of the machine whose code runs

std::int64_t Tenths(double value) { return std::llround(std::abs(value) * Simulate_Figures::kTenths); }

} // namespace

Simulate_Link::Simulate_Link(const Simulate_Scenario& scenario, std::uint32_t seed)
    : mScenario(scenario), mRandom(seed), mMaster(scenario.master, mRandom), mSatellite(scenario.satellite, mRandom),
      mThere(scenario.there, mRandom), mBack(scenario.back, mRandom) {
  for (std::uint32_t number = 0; number < scenario.satellites; ++number) {
    mAddresses.insert(kObserved + number);
  }
  Sys_Clock::SetSource([] { return static_cast<std::int64_t>(std::floor(sShown)); });
  Trel_CorrelatedClockMgr::Terminate();
  Trel_CorrelatedClockMgr::Initialize();
}

Simulate_Link::~Simulate_Link() {
  Trel_CorrelatedClockMgr::Terminate();
  Sys_Clock::SetSource(nullptr);
}

Simulate_Figures::Run Simulate_Link::Run() {
  double roundTrips = 0;
  while (mTime < mScenario.duration) {
    Look();
    mTime = mMaster.AwakeFrom(mTime);
    const double begin = mTime;
    sShown = mMaster.ClockAt(mTime);
    const auto runningTime = static_cast<std::int64_t>(std::floor(sShown));
    Tick(IsConnected() ? mAddresses : std::set<std::uint32_t>(), runningTime, runningTime);
    mTime = std::max(mTime, begin + mScenario.tick);
  }
  if (const auto status = GetStatus(kObserved)) {
    roundTrips = static_cast<double>(status->roundTrips);
  }
  mRun.roundTrips = roundTrips / (mScenario.duration / kSecond);
  return mRun;
}

bool Simulate_Link::Send(Trel_Command* command) {
  const double sent = mTime;
  const double arrival = mThere.ArrivalOf(sent);
  const double handled = mSatellite.RunsAt(arrival);
  const double replied = mBack.ArrivalOf(handled);
  if (IsCut() || handled - sent >= kTimeOut) {
    mTime = sent + kTimeOut;
    return false;
  }
  if (command->GetIPAddressTo() == kObserved) {
    command->SetArrivalTime(static_cast<std::int64_t>(std::floor(mSatellite.ClockAt(arrival))));
    sShown = mSatellite.ClockAt(handled);
    Trel_CorrelatedClockMgr::HandleTimingCommand(command);
  }
  mTime = mMaster.RunsAt(replied);
  command->SetArrivalTime(static_cast<std::int64_t>(std::floor(mMaster.ClockAt(replied))));
  sShown = mMaster.ClockAt(mTime);
  return true;
}

std::uint64_t Simulate_Link::PeerInstance(std::uint32_t address) { return address; }

bool Simulate_Link::IsCut() const {
  return std::any_of(mScenario.cuts.begin(), mScenario.cuts.end(),
                     [this](const auto& cut) { return cut.first <= mTime && mTime < cut.first + cut.second; });
}

bool Simulate_Link::IsConnected() const {
  const auto isLost = [this](const auto& silence) {
    return silence.second > kLossAfter && silence.first + kLossAfter <= mTime &&
           mTime < silence.first + silence.second + kConnecting;
  };
  const auto areKept = [&isLost](const Simulate_Scenario::Happenings& silences) {
    return std::none_of(silences.begin(), silences.end(), isLost);
  };
  return areKept(mScenario.cuts) && areKept(mScenario.master.sleeps) && areKept(mScenario.satellite.sleeps);
}

/// What the observed satellite knows now, at every tenth of a second, and until its clock is usable at every tick.
void Simulate_Link::Look() {
  if ((mTime < mLookAt && mRun.usable) || mSatellite.AwakeFrom(mTime) > mTime) {
    return;
  }
  sShown = mSatellite.ClockAt(mTime);
  const bool isLocked = Trel_CorrelatedClockMgr::IsLocked();
  if (isLocked && !mRun.lock) {
    mRun.lock = mTime;
  }
  const std::int64_t bound = isLocked ? Trel_CorrelatedClockMgr::GetErrorBound(Sys_Clock::Microseconds()) : 0;
  if (isLocked && !mRun.usable && static_cast<double>(bound) < kUsableBound) {
    mRun.usable = mTime;
  }
  if (mTime >= mLookAt) {
    mLookAt = mTime + kLookEvery;
    LookAt(sShown, isLocked);
  }
}

void Simulate_Link::LookAt(double shown, bool isLocked) {
  const auto hostTime = static_cast<std::int64_t>(std::floor(shown));
  const double passed = shown - static_cast<double>(hostTime); // since the clock began to show this
  const auto errorAt = [&](double ahead, std::int64_t hostTimeThen, double passedThen) {
    return static_cast<double>(Trel_CorrelatedClockMgr::GetRunningTime(hostTimeThen)) -
           (mMaster.ClockAt(mTime + ahead) - passedThen);
  };
  const double error = errorAt(0, hostTime, passed);
  const std::int64_t bound = isLocked ? Trel_CorrelatedClockMgr::GetErrorBound(hostTime) : 0;
  if (!isLocked || std::abs(error) <= std::max(kFalse, static_cast<double>(bound))) {
    mFalseSince = -1;
  } else {
    mFalseSince = mFalseSince < 0 ? mTime : mFalseSince;
    mRun.falseLock = std::max(mRun.falseLock, mTime + kLookEvery - mFalseSince);
  }
  if (!isLocked || mTime < *mRun.lock + kSettled) {
    return;
  }
  mRun.errors.push_back(Tenths(error));
  mRun.bounds.push_back(Tenths(static_cast<double>(bound)));
  mRun.beyond += std::abs(error) > static_cast<double>(bound) ? 1 : 0;
  if (!mMaster.IsUpset(mTime, mTime + kSecond) && !mSatellite.IsUpset(mTime, mTime + kSecond)) {
    const double then = mSatellite.ClockAt(mTime + kSecond);
    const auto hostTimeThen = static_cast<std::int64_t>(std::floor(then));
    mRun.errorsAhead.push_back(Tenths(errorAt(kSecond, hostTimeThen, then - static_cast<double>(hostTimeThen))));
  }
}
