#include "link/host/Trel_LinkEvents.h"

#include "link/host/Trel_LinkTexts.h"

#include <utility>

namespace {

constexpr std::size_t kMostOfASystem = 512; // four for each system of a full link
constexpr std::size_t kMostWaiting = 4096;

/// Whether a host that is not told of it would be wrong about who is there, or about what it plays itself.
bool IsChange(Trel_LinkEvent::Kind kind) {
  using Kind = Trel_LinkEvent::Kind;
  const bool isOfLink = kind < Kind::named || kind == Kind::control;
  return (isOfLink && kind != Kind::orderNumber && kind != Kind::systems) ||
         (kind >= Kind::primed && kind <= Kind::together);
}

} // namespace

void Trel_LinkEvents::Start() {
  const std::lock_guard lock(mMutex);
  mIsStopping = false;
  mThread = std::thread([this] { Run(); }); // waits for the lock
  mThreadID = mThread.get_id();
}

void Trel_LinkEvents::Stop() {
  {
    const std::lock_guard lock(mMutex);
    mIsStopping = true;
    mWaiting.clear();
    mSystems.clear();
    mChanged.notify_all();
  }
  if (mThread.joinable()) {
    mThread.join();
  }
  const std::lock_guard lock(mMutex);
  mThreadID = {}; // another thread may get it
}

bool Trel_LinkEvents::IsOnOwnThread() {
  const std::lock_guard lock(mMutex);
  return mThreadID == std::this_thread::get_id();
}

void Trel_LinkEvents::Tell(Trel_LinkEvent event) {
  const std::lock_guard lock(mMutex);
  if (mIsStopping) {
    return;
  }
  OfSystem& system = mSystems[event.system.address];
  if (system.waiting < kMostOfASystem || IsChange(event.kind)) {
    Add(std::move(event));
  } else {
    ++system.leftOut;
  }
}

/// With the lock held.
void Trel_LinkEvents::Add(Trel_LinkEvent event) {
  ++mSystems[event.system.address].waiting;
  mWaiting.push_back({.event = std::move(event)});
  mChanged.notify_one();
}

void Trel_LinkEvents::Call(std::function<void()> call) {
  const std::lock_guard lock(mMutex);
  if (!mIsStopping) {
    mWaiting.push_back({.call = std::move(call)});
    mChanged.notify_one();
  }
}

bool Trel_LinkEvents::IsFull() {
  const std::lock_guard lock(mMutex);
  return mWaiting.size() >= kMostWaiting;
}

/// With the lock held.
void Trel_LinkEvents::TakeOff(const Trel_LinkEvent& event) {
  const auto found = mSystems.find(event.system.address);
  OfSystem& system = found->second;
  --system.waiting;
  if (system.leftOut != 0 && system.waiting < kMostOfASystem / 2) {
    Trel_LinkEvent leftOut = {
        .kind = Trel_LinkEvent::Kind::leftOut, .value = std::exchange(system.leftOut, 0), .system = event.system};
    leftOut.text = Trel_LinkTexts::Describe(leftOut, false);
    Add(std::move(leftOut));
  } else if (system.waiting == 0) {
    mSystems.erase(found);
  }
}

void Trel_LinkEvents::Run() {
  std::unique_lock lock(mMutex);
  while (true) {
    mChanged.wait(lock, [this] { return mIsStopping || !mWaiting.empty(); });
    if (mIsStopping) {
      return;
    }
    const Waiting next = std::move(mWaiting.front());
    mWaiting.pop_front();
    if (!next.call) {
      TakeOff(next.event);
    }
    lock.unlock();
    if (next.call) {
      next.call();
    } else {
      mHandler(next.event);
    }
    lock.lock();
  }
}
