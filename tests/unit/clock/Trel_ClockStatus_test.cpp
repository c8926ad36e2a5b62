#include "link/clock/Trel_ClockState.h"

#include <trel/Sys_Clock.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_CorrelatedClockMgr.h>
#include <trel/host/Trel_RunningTimeExchange.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <map>
#include <numbers>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr std::uint32_t kSatellite = 0x7f000002;
constexpr double kTick = 10'000;

/// Delays of the way there and back: a least one, and a mean of what exceeds it, microseconds.
struct Network {
  const char* name;
  double shortest;
  double meanThere;
  double meanBack;
  double loss; // of a packet, which is sent again after 200 ms
};

double sTrueTime = 0; // which the master's clock shows
bool sIsAtSatellite = false;
double sOffset = 0; // of the satellite's clock
double sDrift = 0;  // 1e-6 is 1 ppm
double sPhase = 0;

/// Its rate wanders by 0.2 ppm to both sides in 20 s.
double SatelliteTime(double time) {
  constexpr double kPeriod = 20e6 / (2 * std::numbers::pi);
  return time * (1 + sDrift) + sOffset + 0.2e-6 * kPeriod * std::sin(time / kPeriod + sPhase);
}

std::int64_t HostTime(double ahead = 0) {
  return static_cast<std::int64_t>(std::floor(SatelliteTime(sTrueTime + ahead)));
}

/// The exchange as a master does it, in virtual time; the clock manager of this process is the satellite's.
class SimulatedMaster : public Trel_RunningTimeExchange {
public:
  explicit SimulatedMaster(std::uint32_t seed, const Network& network = {"quiet", 50, 5, 5, 0})
      : mRandom(seed), mNetwork(network) {
    Trel_CorrelatedClockMgr::Terminate();
    Trel_CorrelatedClockMgr::Initialize();
    sTrueTime = 1e6 * Uniform(1, 1'000'000);
    sOffset = 1e6 * Uniform(-1'000, 1'000'000);
    sDrift = 1e-6 * Uniform(-50, 50);
    sPhase = Uniform(0, 6);
  }

  void Run(double duration) {
    for (const double end = sTrueTime + duration; sTrueTime < end; sTrueTime += kTick) {
      Tick({kSatellite}, static_cast<std::int64_t>(sTrueTime));
    }
  }
  double Uniform(double least, double most) { return std::uniform_real_distribution(least, most)(mRandom); }

  std::mt19937 mRandom;
  Network mNetwork;

protected:
  bool Send(Trel_Command* command) override {
    sTrueTime += Delay(mNetwork.meanThere);
    sIsAtSatellite = true;
    Trel_CorrelatedClockMgr::HandleTimingCommand(command);
    sIsAtSatellite = false;
    sTrueTime += Delay(mNetwork.meanBack);
    return true;
  }

private:
  double Delay(double mean) {
    double delay = mNetwork.shortest;
    for (; Uniform(0, 1) < mNetwork.loss; delay += 200'000) {
    }
    return delay + std::exponential_distribution(1 / mean)(mRandom);
  }
};

class Trel_ClockStatusTest : public testing::Test {
protected:
  void SetUp() override {
    Sys_Clock::SetSource(
        [] { return static_cast<std::int64_t>(sIsAtSatellite ? SatelliteTime(sTrueTime) : sTrueTime); });
  }
  void TearDown() override {
    Trel_CorrelatedClockMgr::Terminate();
    Sys_Clock::SetSource(nullptr);
  }
};

double Percentile(std::vector<double>& values, std::size_t percent) {
  const auto rank = values.begin() + static_cast<std::ptrdiff_t>((values.size() - 1) * percent / 100);
  std::nth_element(values.begin(), rank, values.end());
  return *rank;
}

TEST_F(Trel_ClockStatusTest, ErrorBoundHoldsAndIsNotMuchTooLarge) {
  constexpr Network kNetworks[] = {{"quiet", 40, 3, 3, 0},
                                   {"studio", 60, 30, 30, 0.001},
                                   {"one way busy", 60, 5, 100, 0.001},
                                   {"busy", 150, 200, 200, 0.02},
                                   {"very slow", 800, 400, 400, 0.05}};
  constexpr int kRuns = 100;
  constexpr int kWindowsOfARun = 20;
  struct Figures {
    std::vector<double> errors;
    std::vector<double> bounds;
    int exceeded = 0;
  };
  std::map<std::string, Figures> all; // by network, whether the window is full, and time ahead
  for (const Network& network : kNetworks) {
    for (std::uint32_t run = 0; run < kRuns; ++run) {
      SimulatedMaster master(run + 1, network);
      while (!Trel_CorrelatedClockMgr::IsLocked()) {
        master.Run(kTick);
      }
      for (int window = 0; window < kWindowsOfARun; ++window) {
        const bool isFull = Trel_CorrelatedClockMgr::GetStatus(HostTime()).measurements == 25;
        for (const double ahead : {0.0, 5e5, 1e6, 2e6, 1e7}) {
          Figures& those = all[network.name + std::string(isFull ? ", full, " : ", filling, ") + std::to_string(ahead)];
          const auto predicted = static_cast<double>(Trel_CorrelatedClockMgr::GetRunningTime(HostTime(ahead)));
          those.errors.push_back(std::abs(predicted - (sTrueTime + ahead)));
          those.bounds.push_back(static_cast<double>(Trel_CorrelatedClockMgr::GetErrorBound(HostTime(ahead))));
          those.exceeded += those.errors.back() > those.bounds.back() ? 1 : 0;
        }
        master.Run(master.Uniform(100'000, 1'000'000));
      }
    }
  }
  EXPECT_EQ(all.size(), 50U);
  for (auto& [name, those] : all) {
    EXPECT_LT(those.exceeded, 0.01 * static_cast<double>(those.errors.size())) << name;
    EXPECT_LE(Percentile(those.bounds, 50), 4 * Percentile(those.errors, 99)) << name;
  }
}

/// "state: reason" of each change while the exchange runs, and the last status.
class Trel_ClockFaultsTest : public Trel_ClockStatusTest {
protected:
  void Watch(double duration) {
    for (const double end = sTrueTime + duration;; mMaster.Run(kTick)) {
      mStatus = Trel_CorrelatedClockMgr::GetStatus(HostTime());
      const std::string told = std::string(mStatus.GetStateText()) + ": " + mStatus.GetReasonText();
      if (mTold.empty() || mTold.back() != told) {
        mTold.push_back(told);
      }
      if (sTrueTime >= end) {
        return;
      }
    }
  }
  using Told = std::vector<std::string>;

  SimulatedMaster mMaster{1};
  Trel_ClockStatus mStatus;
  Told mTold;
  const Told mSettled = {"no clock: no running time comes from the master", "acquiring: not enough measurements yet",
                         "locked: the possible error has not been small for long enough",
                         "stable: the possible error is small"};
};

TEST_F(Trel_ClockFaultsTest, BecomesStableAndIsLostWithoutItsMaster) {
  EXPECT_EQ(Trel_CorrelatedClockMgr::GetStatus(HostTime()).errorBound, Trel_ClockStatus::kNoErrorBound);
  Watch(5e6);
  EXPECT_EQ(mTold, mSettled);
  EXPECT_TRUE(mStatus.isLocked);
  EXPECT_EQ(mStatus.measurements, 25);
  EXPECT_NEAR(static_cast<double>(mStatus.span), 4.2e6, 1e6);
  EXPECT_LE(mStatus.age, 260'000);
  EXPECT_NEAR(mStatus.rate, sDrift * 1e6, 1.0);
  EXPECT_NEAR(mStatus.offset, SatelliteTime(sTrueTime) - sTrueTime, 10.0);
  EXPECT_TRUE(mStatus.residualDeviation > 0.5 && mStatus.residualDeviation < 8) << mStatus.residualDeviation;
  EXPECT_TRUE(mStatus.smallestRoundTrip >= 100 && mStatus.smallestRoundTrip < 105) << mStatus.smallestRoundTrip;
  const auto exchange = *mMaster.GetStatus(kSatellite);
  EXPECT_EQ(mStatus.accepted, exchange.vouched);
  EXPECT_EQ(mStatus.rejectedNotVouchedFor, exchange.roundTrips - exchange.vouched);
  EXPECT_EQ(mStatus.lastRejection, eTrel_ClockRejection_NotVouchedFor);
  EXPECT_EQ(mStatus.rejectedRoundTripTooLong, 0);

  const std::int64_t bound = mStatus.errorBound;
  mStatus = Trel_CorrelatedClockMgr::GetStatus(HostTime(4.5e6)); // as if the exchange had stopped
  EXPECT_EQ(mStatus.state, eTrel_ClockState_Stable);
  EXPECT_GT(mStatus.errorBound, bound);
  EXPECT_EQ(mStatus.errorBound, Trel_CorrelatedClockMgr::GetErrorBound(HostTime(4.5e6)));
  mStatus = Trel_CorrelatedClockMgr::GetStatus(HostTime(6e6));
  EXPECT_EQ(mStatus.state, eTrel_ClockState_Lost);
  EXPECT_EQ(mStatus.reason, eTrel_ClockReason_NoExchange);
  EXPECT_GT(mStatus.age, 5'500'000);

  sTrueTime += 60e6; // and is back
  mTold.clear();
  Watch(5e6);
  EXPECT_EQ(mTold, (Told{"lost: no running time comes from the master", mSettled[1], mSettled[3]}));
}

TEST_F(Trel_ClockFaultsTest, SaysThatRoundTripsAreAboveTheLimit) {
  Watch(5e6);
  const std::int64_t accepted = mStatus.accepted;
  mMaster.mNetwork.shortest = 20'000;
  mTold.clear();
  Watch(20e6);
  EXPECT_EQ(mTold, (Told{mSettled[3], "lost: the round trips are above the limit"}));
  EXPECT_GE(mStatus.rejectedRoundTripTooLong, 1);
  EXPECT_EQ(mStatus.lastRejection, eTrel_ClockRejection_RoundTripTooLong);
  EXPECT_EQ(mStatus.accepted, accepted);
  EXPECT_GT(mStatus.lastRoundTrip, mStatus.roundTripLimit);
}

TEST_F(Trel_ClockFaultsTest, TellsAJumpOnceAndIsStableAgain) {
  for (const double jump : {1e6, -1e6, 300.0}) {
    Watch(8e6);
    mTold.clear();
    const std::int64_t jumps = mStatus.jumps;
    sOffset += jump;
    for (int i = 0; i < 100; ++i) {
      Watch(100'000);
      const auto error = static_cast<double>(Trel_CorrelatedClockMgr::GetRunningTime(HostTime())) - sTrueTime;
      EXPECT_LE(std::abs(error),
                mStatus.jumps == jumps ? std::abs(jump) + 100 : static_cast<double>(mStatus.errorBound));
    }
    EXPECT_EQ(mTold, (Told{mSettled[3], "acquiring: a clock has jumped; measurements from before still count",
                           mSettled[2], mSettled[3]}));
    EXPECT_EQ(mStatus.jumps, jumps + 1);
    EXPECT_NEAR(static_cast<double>(mStatus.lastJump), jump, 60.0);
    EXPECT_LE(mStatus.errorBound, 20);
  }
}

TEST_F(Trel_ClockStatusTest, StateIsHarderToReachThanToKeep) {
  Trel_ClockState state;
  std::int64_t now = 0;
  const auto add = [&](std::int64_t bound, std::int64_t boundBefore, bool isLocked = true, std::int64_t age = 250'000) {
    now += age;
    state.Add({.hostTime = now,
               .errorBoundBefore = boundBefore,
               .errorBound = bound,
               .measurements = 25,
               .isLocked = isLocked,
               .holdsJump = false});
    return state.At(now, bound).state;
  };
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(add(500, 500), eTrel_ClockState_Locked);
  }
  EXPECT_EQ(add(501, 501), eTrel_ClockState_Locked);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(add(500, 2'000), eTrel_ClockState_Locked);
  }
  EXPECT_EQ(add(500, 500), eTrel_ClockState_Stable);
  EXPECT_EQ(add(1'000, 1'000), eTrel_ClockState_Stable);
  EXPECT_EQ(state.At(now, 1'001).state, eTrel_ClockState_Locked);
  EXPECT_EQ(state.At(now + 5'000'000, 1'000).state, eTrel_ClockState_Stable);
  EXPECT_EQ(state.At(now + 5'000'001, 1'000).state, eTrel_ClockState_Lost);
  EXPECT_EQ(add(100, 1'001), eTrel_ClockState_Locked); // it had grown too large meanwhile
  EXPECT_EQ(add(100, 100, false), eTrel_ClockState_Lost);
  EXPECT_EQ(state.At(now, 100).reason, eTrel_ClockReason_NotOnALine);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(add(100, 100), eTrel_ClockState_Acquiring);
  }
  EXPECT_NE(add(100, 100), eTrel_ClockState_Acquiring);
  EXPECT_EQ(add(100, 100, true, 5'000'001), eTrel_ClockState_Acquiring);
}

TEST_F(Trel_ClockStatusTest, WaitsForASmallErrorAndNoLongerThanTheManagerLives) {
  Sys_Clock::SetSource(nullptr);
  Trel_CorrelatedClockMgr::Initialize();
  EXPECT_EQ(Trel_CorrelatedClockMgr::WaitUntilLocked(1'000, 0), eTrel_ClockWait_TimedOut);
  std::thread measuring([] {
    while (Trel_CorrelatedClockMgr::GetStatus().state < eTrel_ClockState_Locked) {
      const std::int64_t now = Sys_Clock::Microseconds();
      Trel_CorrelatedClockMgr::AddMeasurement(now + 1'000, now);
    }
  });
  EXPECT_EQ(Trel_CorrelatedClockMgr::WaitUntilLocked(1'000'000, 60'000'000), eTrel_ClockWait_Locked);
  measuring.join();
  std::atomic<bool> isOver{false};
  std::thread terminating([&isOver] {
    while (!isOver) {
      Trel_CorrelatedClockMgr::Terminate();
      Trel_CorrelatedClockMgr::Initialize();
    }
  });
  EXPECT_EQ(Trel_CorrelatedClockMgr::WaitUntilLocked(0, 1'000'000'000), eTrel_ClockWait_Terminated);
  isOver = true;
  terminating.join();
}

} // namespace
