#include "tools/trel/host/Player.h"

#include <trel/Sys_Clock.h>
#include <trel/Sys_ThreadPriority.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace {

using std::chrono::microseconds;

constexpr std::chrono::milliseconds kReportDelay{100};
constexpr microseconds kNear{150'000};    // from here on a start cannot be given up
constexpr microseconds kLongest{500'000}; // between two looks at the host time, which new measurements move

} // namespace

Player::Player(HostTimeOf hostTimeOf, Wait wait, Report report)
    : mHostTimeOf(std::move(hostTimeOf)), mWait(std::move(wait)), mReport(std::move(report)),
      mThread([this] { Run(); }) {}

Player::~Player() {
  {
    const std::lock_guard lock(mMutex);
    mEnding = true;
    mRunningTime.reset();
  }
  mChanged.notify_one();
  mThread.join();
}

void Player::Start(std::int64_t runningTime) {
  {
    const std::lock_guard lock(mMutex);
    mRunningTime = runningTime;
  }
  mChanged.notify_one();
}

void Player::Cancel() {
  {
    const std::lock_guard lock(mMutex);
    mRunningTime.reset();
  }
  mChanged.notify_one();
}

bool Player::WaitUntilNear(std::unique_lock<std::mutex>& lock, std::int64_t runningTime) {
  while (!mEnding && mRunningTime == runningTime) {
    const auto hostTime = mHostTimeOf(runningTime);
    const microseconds left{hostTime ? *hostTime - Sys_Clock::Microseconds() : 0};
    if (left <= kNear) {
      return true;
    }
    mChanged.wait_for(lock, std::min(left - kNear, kLongest));
  }
  return false;
}

void Player::Begin(std::int64_t runningTime) {
  std::int64_t rawTime = 0;
  {
    const Sys_ThreadPriority raised;
    if (!mWait(runningTime)) {
      return;
    }
    rawTime = Sys_Clock::RawMicroseconds();
    std::this_thread::sleep_for(kReportDelay); // at once: on a machine with few cores another may wait for this one's
  }
  mReport(runningTime, rawTime);
}

void Player::Run() {
  std::unique_lock lock(mMutex);
  for (;;) {
    mChanged.wait(lock, [this] { return mEnding || mRunningTime; });
    if (mEnding) {
      return;
    }
    const std::int64_t runningTime = *mRunningTime;
    if (!WaitUntilNear(lock, runningTime)) {
      continue;
    }
    mRunningTime.reset();
    lock.unlock();
    Begin(runningTime);
    lock.lock();
  }
}
