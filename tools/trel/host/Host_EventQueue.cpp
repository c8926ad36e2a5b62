#include "tools/trel/host/Host_EventQueue.h"

#include "tools/trel/host/Host_EventSink.h"

#include <trel/Sys_Clock.h>

#include <utility>

namespace {

constexpr std::size_t kMostWaiting = 10'000;

} // namespace

Host_EventQueue::Host_EventQueue(std::unique_ptr<Host_EventSink> sink)
    : mSink(std::move(sink)), mThread([this] { Run(); }) {}

Host_EventQueue::~Host_EventQueue() { mThread.join(); }

void Host_EventQueue::Push(const Host_Event& event) {
  if (event.isSample && !mSink->TakesSamples()) {
    return;
  }
  {
    const std::lock_guard lock(mMutex);
    if (mWaiting.size() >= kMostWaiting) {
      ++mDropped;
      return;
    }
    mThrottle.Take(event, Sys_Clock::RawMicroseconds(), mWaiting);
  }
  mChanged.notify_all();
}

void Host_EventQueue::End() {
  {
    const std::lock_guard lock(mMutex);
    mIsEnding = true;
  }
  mChanged.notify_all();
}

bool Host_EventQueue::AwaitEnd(std::chrono::steady_clock::time_point deadline) {
  std::unique_lock lock(mMutex);
  const auto hasEnded = [this] { return mHasEnded; };
  if (!mChanged.wait_until(lock, deadline, hasEnded)) {
    mSink->GiveUp();
    mChanged.wait(lock, hasEnded);
  }
  return !mSink->HasFailed();
}

void Host_EventQueue::Run() {
  std::unique_lock lock(mMutex);
  for (;;) {
    const auto hasWork = [this] { return mIsEnding || !mWaiting.empty(); };
    if (mThrottle.NextRelease() == Host_Throttle::kNever) {
      mChanged.wait(lock, hasWork);
    } else {
      mChanged.wait_for(lock, std::chrono::microseconds(mThrottle.NextRelease() - Sys_Clock::RawMicroseconds()),
                        hasWork);
    }
    mThrottle.Release(mIsEnding ? Host_Throttle::kNever : Sys_Clock::RawMicroseconds(), mWaiting);
    if (mWaiting.empty() && mIsEnding) {
      break;
    }
    const std::deque<Host_Event> events = std::exchange(mWaiting, {});
    const std::int64_t dropped = std::exchange(mDropped, 0);
    lock.unlock();
    for (const Host_Event& event : events) {
      mSink->Take(event);
    }
    if (dropped != 0) {
      mSink->Take({.kind = "dropped",
                   .text = std::to_string(dropped) + " messages were left out: the output was not taken in time",
                   .fields = {{"count", dropped}}});
    }
    lock.lock();
  }
  mHasEnded = true;
  mChanged.notify_all();
}
