#include "link/session/Trel_ControlArbiter.h"

void Trel_ControlArbiter::SetMaster(std::uint32_t address) {
  mHolder = mHolder == mMaster ? address : mHolder;
  mAsker = mAsker == mMaster ? address : mAsker;
  mMaster = address;
}

Trel_ControlArbiter::Verdict Trel_ControlArbiter::Request(std::uint32_t asker) {
  if (mPhase != Phase::settled) {
    return Verdict::busy;
  }
  if (asker == mHolder) {
    Name(asker);
    return Verdict::granted;
  }
  mAsker = asker;
  mIsAskerThere = true;
  mHolderPresence = Presence::there;
  mPhase = Phase::asking;
  return Verdict::askHolder;
}

bool Trel_ControlArbiter::HolderAnswered(Answer answer) {
  const bool isGranted = answer == Answer::agreed && mIsAskerThere;
  if (answer == Answer::agreed) {
    Name(mIsAskerThere ? mAsker : mMaster);
  } else if (mHolderPresence != Presence::there) {
    FallBack(mHolderPresence);
  } else {
    Name(mHolder);
  }
  mAsker = 0;
  return isGranted;
}

void Trel_ControlArbiter::SystemGone(std::uint32_t address, bool isLost) {
  const Presence presence = isLost ? Presence::isLost : Presence::hasLeft;
  if (mPhase == Phase::waiting) {
    if (address == mLostHolder && !isLost) {
      WaitOver();
    }
    return;
  }
  if (mPhase == Phase::asking && address == mAsker) {
    mIsAskerThere = false;
  }
  if (address != mHolder) {
    return;
  }
  if (mPhase == Phase::settled || mPhase == Phase::named) {
    FallBack(presence);
  } else {
    mHolderPresence = presence;
  }
}

void Trel_ControlArbiter::Announced() {
  mPhase = Phase::settled;
  if (mHolderPresence != Presence::there) {
    FallBack(mHolderPresence);
  }
}

void Trel_ControlArbiter::WaitOver() {
  mLostHolder = 0;
  Name(mMaster);
}

void Trel_ControlArbiter::Name(std::uint32_t holder) {
  mHolder = holder;
  mHolderPresence = Presence::there;
  mPhase = Phase::named;
}

void Trel_ControlArbiter::FallBack(Presence holder) {
  if (holder == Presence::isLost) {
    mLostHolder = mHolder;
    mHolder = 0;
    mHolderPresence = Presence::there;
    mPhase = Phase::waiting;
  } else {
    Name(mMaster);
  }
}
