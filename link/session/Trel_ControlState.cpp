#include "link/session/Trel_ControlState.h"

bool Trel_ControlState::BeginRequest() {
  if (mIsAsking) {
    return false;
  }
  mIsAsking = true;
  return true;
}

std::optional<Trel_ControlState::Ticket> Trel_ControlState::AskToLetGo() const {
  return mIsAsking ? std::nullopt : std::optional(mAnnouncements);
}

bool Trel_ControlState::LetGo(Ticket ticket) {
  if (mIsAsking || ticket != mAnnouncements) {
    return false;
  }
  if (mHasControl) {
    mHasControl = false;
    mHolder = 0;
  }
  return true;
}

bool Trel_ControlState::Announce(std::uint32_t holder, bool isThisOne) {
  const bool isNews = mHolder != holder || mHasControl != isThisOne || holder == 0;
  mHolder = holder;
  mHasControl = isThisOne;
  ++mAnnouncements;
  return isNews;
}

void Trel_ControlState::LoseLink() {
  Announce(0, false);
  ++mLosses;
}
