#include "Host_Sender.h"

#include <utility>

namespace {

constexpr std::size_t kMostJobs = 10'000; // a few for each of 128 systems, many times over

}

Host_Sender::Host_Sender() : mThread([this] { Run(); }) {}

Host_Sender::~Host_Sender() {
  {
    const std::lock_guard lock(mMutex);
    mEnding = true;
  }
  mChanged.notify_one();
  mThread.join();
}

bool Host_Sender::Send(std::function<void()> job) {
  {
    const std::lock_guard lock(mMutex);
    if (mJobs.size() >= kMostJobs) {
      return false;
    }
    mJobs.push_back(std::move(job));
  }
  mChanged.notify_one();
  return true;
}

void Host_Sender::Run() {
  std::unique_lock lock(mMutex);
  for (;;) {
    mChanged.wait(lock, [this] { return mEnding || !mJobs.empty(); });
    if (mEnding) {
      return;
    }
    const std::function<void()> job = std::move(mJobs.front());
    mJobs.pop_front();
    lock.unlock();
    job();
    lock.lock();
  }
}
