#include "Demo_Player.h"

#include <trel/Sys_Clock.h>

#include <chrono>
#include <utility>

namespace {

constexpr std::chrono::milliseconds kReportDelay{100};

} // namespace

Demo_Player::Demo_Player(Wait wait, Report report)
    : mWait(std::move(wait)), mReport(std::move(report)), mThread([this] { Run(); }) {}

Demo_Player::~Demo_Player() {
  {
    const std::lock_guard lock(mMutex);
    mEnding = true;
  }
  mChanged.notify_one();
  mThread.join();
}

void Demo_Player::Start(std::int64_t runningTime) {
  {
    const std::lock_guard lock(mMutex);
    mRunningTime = runningTime;
  }
  mChanged.notify_one();
}

void Demo_Player::Run() {
  std::unique_lock lock(mMutex);
  for (;;) {
    mChanged.wait(lock, [this] { return mEnding || mRunningTime; });
    if (mEnding) {
      return;
    }
    const std::int64_t runningTime = *std::exchange(mRunningTime, std::nullopt);
    lock.unlock();
    const bool isTime = mWait(runningTime);
    const std::int64_t rawTime = Sys_Clock::RawMicroseconds();
    if (isTime) {
      std::this_thread::sleep_for(kReportDelay);
      mReport(runningTime, rawTime);
    }
    lock.lock();
  }
}
