#include "tools/trel/simulate/Simulate_Machine.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace {

constexpr double kMillionth = 1e-6;
constexpr double kMostOffset = 1e12; // twelve days
constexpr double kResentAfter = 200e3;

double Uniform(Simulate_Random& random, double least, double most) {
  return std::uniform_real_distribution<double>(least, most)(random);
}

} // namespace

Simulate_Machine::Simulate_Machine(const Simulate_Scenario::Machine& scenario, Simulate_Random& random)
    : mScenario(scenario), mRandom(random), mOffset(Uniform(random, 0, kMostOffset)),
      mPhase(Uniform(random, 0, 2 * std::numbers::pi)) {}

double Simulate_Machine::ClockAt(double time) const {
  double shown = time;
  for (const auto& [begin, length] : mScenario.sleeps) {
    shown -= std::clamp(time - begin, 0.0, length);
  }
  shown += mOffset + shown * mScenario.drift * kMillionth;
  for (const auto& [amplitude, period] : mScenario.wander) {
    const double radian = period / (2 * std::numbers::pi);
    shown += amplitude * kMillionth * radian * std::sin(time / radian + mPhase);
  }
  for (const auto& [moment, amount] : mScenario.jumps) {
    shown += time >= moment ? amount : 0;
  }
  return shown;
}

double Simulate_Machine::AwakeFrom(double time) const {
  for (const auto& [begin, length] : mScenario.sleeps) {
    if (begin <= time && time < begin + length) {
      return begin + length;
    }
  }
  return time;
}

double Simulate_Machine::RunsAt(double arrival) {
  // Half of the mean is what every thread takes.
  const double half = mScenario.wake / 2;
  return AwakeFrom(arrival) + half + (half > 0 ? std::exponential_distribution<double>(1 / half)(mRandom) : 0);
}

bool Simulate_Machine::IsUpset(double from, double to) const {
  const auto isWithin = [from, to](const auto& happening) { return from < happening.first && happening.first <= to; };
  return std::any_of(mScenario.jumps.begin(), mScenario.jumps.end(), isWithin) ||
         std::any_of(mScenario.sleeps.begin(), mScenario.sleeps.end(), isWithin);
}

Simulate_Way::Simulate_Way(const Simulate_Scenario::Way& scenario, Simulate_Random& random)
    : mScenario(scenario), mRandom(random) {
  if (mScenario.burstEvery > 0) {
    mBurstBegins = Around(mScenario.burstEvery);
    mBurstEnds = mBurstBegins + Around(mScenario.burstFor);
  }
}

double Simulate_Way::ArrivalOf(double sent) {
  double arrival = sent + mScenario.shortest + (mScenario.mean > 0 ? Around(mScenario.mean) : 0);
  for (; Uniform(mRandom, 0, 100) < mScenario.loss; arrival += kResentAfter) {
  }
  for (; mBurstEnds <= sent && mBurstBegins < sent; mBurstEnds = mBurstBegins + Around(mScenario.burstFor)) {
    mBurstBegins = mBurstEnds + Around(mScenario.burstEvery);
  }
  return arrival + (mBurstBegins <= sent && sent < mBurstEnds ? Uniform(mRandom, 0, mScenario.burstDelay) : 0);
}
