#include "tcpe/protocol/TCPE_Credits.h"

void TCPE_Credits::Told(std::uint32_t finished, TCPE_Time now) {
  const std::uint32_t more = finished - static_cast<std::uint32_t>(mFinished);
  if (more > mSent - mFinished) {
    return;
  }
  mIsLimited = true;
  mHasTold = true;
  if (more != 0) {
    mFinished += more;
    mProgress = now;
  }
}

void TCPE_Credits::SetWaiting(bool isWaiting, TCPE_Time now) {
  if (isWaiting && !mIsWaiting) {
    mProgress = now;
  }
  mIsWaiting = isWaiting;
}

bool TCPE_FinishedCount::NoteFinished() {
  // In one order with Tell: what it does not see yet finds the announcement withdrawn.
  mFinished.fetch_add(1);
  return (Untold() >= mLimits.finishedStep || mMustBeWaiting) && !mIsAnnounced.load() && !mIsAnnounced.exchange(true);
}

std::uint32_t TCPE_FinishedCount::Tell(TCPE_Time now) {
  mIsAnnounced.store(false);
  const std::uint64_t finished = mFinished.load();
  mTold.store(finished, std::memory_order_relaxed);
  mMustBeWaiting = mArrived - finished >= mLimits.maxCommandsOut;
  mHasTold = true;
  mLastTold = now;
  return static_cast<std::uint32_t>(finished);
}

TCPE_Time TCPE_FinishedCount::Deadline() const {
  const std::uint64_t untold = Untold();
  if (!mHasTold) {
    return 0;
  }
  if (untold == 0) {
    return TCPE_Credits::kNever;
  }
  if (untold >= mLimits.finishedStep) {
    return mLastTold;
  }
  return mLastTold + (mMustBeWaiting ? mLimits.finishedPause : mLimits.heartbeat);
}
