#include "tools/trel/host/Host_Events.h"

#include "tools/trel/host/Host_EventSink.h"

#include <algorithm>
#include <utility>

namespace {

constexpr std::size_t kMostWaiting = 10'000;

}

Host_Events::Host_Events(std::vector<std::unique_ptr<Host_EventSink>> sinks)
    : mSinks(std::move(sinks)), mThread([this] { Run(); }) {}

bool Host_Events::Finish() {
  {
    const std::lock_guard lock(mMutex);
    mEnding = true;
  }
  mChanged.notify_one();
  if (mThread.joinable()) {
    mThread.join();
  }
  return std::none_of(mSinks.begin(), mSinks.end(), [](const auto& sink) { return sink->HasFailed(); });
}

void Host_Events::Tell(Host_Event event) {
  {
    const std::lock_guard lock(mMutex);
    if (mWaiting.size() >= kMostWaiting) {
      ++mDropped;
      return;
    }
    mWaiting.push_back(std::move(event));
  }
  mChanged.notify_one();
}

void Host_Events::Run() {
  std::unique_lock lock(mMutex);
  for (;;) {
    mChanged.wait(lock, [this] { return mEnding || !mWaiting.empty(); });
    if (mWaiting.empty()) {
      return;
    }
    const std::deque<Host_Event> events = std::exchange(mWaiting, {});
    const std::int64_t dropped = std::exchange(mDropped, 0);
    lock.unlock();
    for (const Host_Event& event : events) {
      Take(event);
    }
    if (dropped != 0) {
      Take({.kind = "dropped",
            .text = std::to_string(dropped) + " messages were left out: the output was not taken in time",
            .fields = {{"count", dropped}}});
    }
    lock.lock();
  }
}

void Host_Events::Take(const Host_Event& event) {
  for (const auto& sink : mSinks) {
    if (!event.isSample || sink->TakesSamples()) {
      sink->Take(event);
    }
  }
}
