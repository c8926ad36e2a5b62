#include "link/host/Trel_LinkWorker.h"

#include <trel/Sys_Clock.h>

#include <chrono>
#include <system_error>
#include <utility>

namespace {

constexpr std::size_t kMostWaitingOfAPeer = 512; // four commands for each system of a full link
constexpr int kMostTasksInRow = 64;              // before a look at what is due

} // namespace

void Trel_LinkWorker::Post(std::uint32_t peer, Task task) {
  const std::lock_guard lock(mMutex);
  if (mWaiting[peer] < kMostWaitingOfAPeer) {
    Push(peer, std::move(task));
  }
}

void Trel_LinkWorker::PostChange(std::uint32_t peer, Task task) {
  const std::lock_guard lock(mMutex);
  std::erase_if(mTasks, [peer](const Posted& posted) { return posted.peer == peer; });
  mWaiting[peer] = 0;
  Push(peer, std::move(task));
}

bool Trel_LinkWorker::Start(Tick tick, Task end) {
  const std::lock_guard lock(mThreadMutex);
  if (mThread.joinable()) {
    return false;
  }
  try {
    const std::lock_guard stateLock(mMutex); // the thread waits until its number is known
    mThread = std::thread([this, tick = std::move(tick), end = std::move(end)] {
      Run(tick);
      end();
    });
    mThreadID = mThread.get_id();
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

bool Trel_LinkWorker::IsRunning() {
  const std::lock_guard lock(mMutex);
  return mThreadID != std::thread::id();
}

bool Trel_LinkWorker::IsOnOwnThread() {
  const std::lock_guard lock(mMutex);
  return mThreadID == std::this_thread::get_id();
}

void Trel_LinkWorker::Stop() {
  const std::lock_guard threadLock(mThreadMutex);
  if (!mThread.joinable()) {
    return;
  }
  {
    const std::lock_guard lock(mMutex);
    mIsStopping = true;
    mChanged.notify_all();
  }
  mThread.join();
  mThread = {};
  const std::lock_guard lock(mMutex);
  mThreadID = {};
  mIsStopping = false;
}

void Trel_LinkWorker::Push(std::uint32_t peer, Task task) {
  mTasks.push_back({peer, std::move(task)});
  ++mWaiting[peer];
  mIsPosted = true;
  mChanged.notify_all();
}

void Trel_LinkWorker::Run(const Tick& tick) {
  std::unique_lock lock(mMutex);
  int tasksInRow = 0;
  while (!mIsStopping) {
    if (!mTasks.empty() && tasksInRow < kMostTasksInRow) {
      ++tasksInRow;
      const Posted posted = std::move(mTasks.front());
      mTasks.pop_front();
      if (--mWaiting[posted.peer] == 0) {
        mWaiting.erase(posted.peer);
      }
      lock.unlock();
      posted.task();
      lock.lock();
      continue;
    }
    tasksInRow = 0;
    mIsPosted = !mTasks.empty();
    lock.unlock();
    const std::int64_t now = Sys_Clock::RawMicroseconds();
    const std::int64_t due = tick(now);
    lock.lock();
    const auto hasWork = [this] { return mIsStopping || mIsPosted; };
    if (due == kNever) {
      mChanged.wait(lock, hasWork);
    } else {
      mChanged.wait_for(lock, std::chrono::microseconds(due - Sys_Clock::RawMicroseconds()), hasWork);
    }
  }
}
