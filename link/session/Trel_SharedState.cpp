#include "link/session/Trel_SharedState.h"

#include <algorithm>
#include <utility>

namespace {

ETrel_LinkState LinkState(bool isTakingPart, bool isClockLocked) {
  return !isTakingPart   ? eTrel_LinkState_Linkable
         : isClockLocked ? eTrel_LinkState_LinkedPlayable
                         : eTrel_LinkState_LinkedNotPlayable;
}

} // namespace

Trel_SystemState Trel_SharedState::Of(std::uint32_t address) const {
  const auto other = mOthers.find(address);
  return other != mOthers.end() ? other->second : Trel_SystemState();
}

// --- who is there ---------------------------------------------------------------------------------------------------

void Trel_SharedState::Linked(std::uint32_t address) {
  mLink.Send({address}, Message::SendState{mOwn.transport});
  if (!mLink.IsMaster()) {
    mLink.Send({address}, Message::ClockLockState{mOwn.isClockLocked});
    mOthers[address].isClockLocked = mOthers[address].isClockLocked || address == mLink.Master(); // that is its own
  }
  mLink.Send({address}, Message::UpdateLinkState{mOwn.link});
  mLink.Send({address}, Message::UpdateOnlineState{mOwn.isOnline});
  mLink.Send({address}, Message::VideoReferenceAvailable{mOwn.videoReference != eTrel_VideoReferenceFormat_Undefined});
  mLink.Send({address}, Message::VideoReferenceFormat{mOwn.videoReference});
  if (mLink.IsMaster()) {
    mLink.Send({address}, Message::SetLoopPlay{mShared.loopPlay});
    mLink.Send({address}, Message::SetCurrentSelection{mShared.selection});
    mLink.Send({address}, Message::UpdateGroupEnable{mShared.groups});
  }
  TellOthers();
}

void Trel_SharedState::Forget(std::uint32_t address) {
  mTold.erase(address);
  mDoubted.erase(address);
  if (mOthers.erase(address) != 0 && mLink.IsMaster()) {
    TellOthers();
  }
}

void Trel_SharedState::ForgetAll() {
  mOthers.clear();
  mTold.clear();
  mDoubted.clear();
}

bool Trel_SharedState::Doubt(std::uint32_t address) {
  const auto other = mOthers.find(address);
  if (other == mOthers.end() || other->second.transport != eTrel_State_PrimeCompleted) {
    return false;
  }
  other->second.transport = eTrel_State_Priming;
  mDoubted.insert(address);
  return true;
}

void Trel_SharedState::EndDoubt() {
  for (const std::uint32_t address : std::exchange(mDoubted, {})) {
    mOthers[address].transport = eTrel_State_PrimeCompleted;
  }
}

void Trel_SharedState::NoteClock(bool isLocked) {
  if (std::exchange(mOwn.isClockLocked, isLocked) == isLocked) {
    return;
  }
  if (!mLink.IsMaster()) {
    mLink.Tell({.kind = Kind::clock, .system = mLink.Describe(mLink.Self()), .isOn = isLocked});
    SendToAll(Message::ClockLockState{isLocked});
  }
  ChangeLink(mOwn.IsTakingPart());
}

// --- this system's own ----------------------------------------------------------------------------------------------

void Trel_SharedState::SendToAll(const Message::Any& message) { mLink.Send(mLink.GetLinkedAddresses(), message); }

bool Trel_SharedState::ChangeOwn(Kind kind, bool Trel_SystemState::*flag, bool isOn) {
  if (std::exchange(mOwn.*flag, isOn) == isOn) {
    return false;
  }
  mLink.Tell({.kind = kind, .system = mLink.Describe(mLink.Self()), .isOn = isOn});
  return true;
}

void Trel_SharedState::SetTransport(ETrel_State transport) {
  if (std::exchange(mOwn.transport, transport) != transport) {
    SendToAll(Message::SendState{transport});
  }
}

void Trel_SharedState::SetSoloed(bool isOn) {
  if (ChangeOwn(Kind::soloed, &Trel_SystemState::isSoloed, isOn)) {
    TellOthers();
  }
}

void Trel_SharedState::SetRecording(bool isOn) {
  if (ChangeOwn(Kind::recording, &Trel_SystemState::isRecording, isOn)) {
    TellOthers();
  }
}

void Trel_SharedState::SetOnline(bool isOn) {
  if (ChangeOwn(Kind::online, &Trel_SystemState::isOnline, isOn)) {
    SendToAll(Message::UpdateOnlineState{isOn});
  }
}

void Trel_SharedState::SetTakingPart(bool isOn) { ChangeLink(isOn); }

void Trel_SharedState::ChangeLink(bool isTakingPart) {
  const ETrel_LinkState link = LinkState(isTakingPart, mOwn.isClockLocked);
  const Trel_SystemState before = std::exchange(mOwn, [&] {
    Trel_SystemState own = mOwn;
    own.link = link;
    return own;
  }());
  if (before.link == link) {
    return;
  }
  mLink.Tell({.kind = Kind::takingPart,
              .value = before.IsTakingPart() == isTakingPart ? 1 : 0,
              .system = mLink.Describe(mLink.Self()),
              .isOn = isTakingPart,
              .state = mOwn});
  SendToAll(Message::UpdateLinkState{link});
}

void Trel_SharedState::SetVideoReference(ETrel_VideoReferenceFormat format) {
  mOwn.videoReference = format;
  SendToAll(Message::VideoReferenceAvailable{format != eTrel_VideoReferenceFormat_Undefined});
  SendToAll(Message::VideoReferenceFormat{format});
}

void Trel_SharedState::SetDialog(const std::string& text) {
  mOwn.dialog = text;
  TellOthers();
}

void Trel_SharedState::TellOthers() {
  for (const std::uint32_t address : mLink.GetLinkedAddresses()) {
    Told& told = mTold[address];
    const bool isSoloed = IsToBeTold(&Trel_SystemState::isSoloed, address);
    if (std::exchange(told.isSoloed, isSoloed) != isSoloed) {
      mLink.Send({address}, Message::TrackIsSoloed{isSoloed});
    }
    const bool isRecording = IsToBeTold(&Trel_SystemState::isRecording, address);
    if (std::exchange(told.isRecording, isRecording) != isRecording) {
      mLink.Send({address}, Message::UpdateSystemIsRecording{isRecording});
    }
    if (const std::string& dialog = DialogFor(address); told.dialog != dialog) {
      told.dialog = dialog;
      mLink.Send({address}, Message::DialogOnScreen{dialog});
    }
  }
}

bool Trel_SharedState::IsToBeTold(bool Trel_SystemState::*flag, std::uint32_t address) const {
  const auto isSet = [address, flag](const auto& other) { return other.first != address && other.second.*flag; };
  return mOwn.*flag || (mLink.IsMaster() && std::any_of(mOthers.begin(), mOthers.end(), isSet));
}

const std::string& Trel_SharedState::DialogFor(std::uint32_t address) const {
  const auto hasDialog = [address](const auto& other) {
    return other.first != address && !other.second.dialog.empty();
  };
  const auto other = std::find_if(mOthers.begin(), mOthers.end(), hasDialog);
  return mOwn.dialog.empty() && mLink.IsMaster() && other != mOthers.end() ? other->second.dialog : mOwn.dialog;
}

// --- everybody's ----------------------------------------------------------------------------------------------------

Trel_LinkRefusal Trel_SharedState::SetLoopPlay(bool isOn) {
  const Trel_LinkRefusal refusal = mLink.WhyNotInControl();
  if (refusal == Trel_LinkRefusal::none) {
    TakeLoopPlay(isOn, mLink.Self());
  }
  return refusal;
}

Trel_LinkRefusal Trel_SharedState::SetSelection(const Trel_PlayRange& range) {
  const Trel_LinkRefusal refusal = mLink.WhyNotInControl();
  if (refusal == Trel_LinkRefusal::none) {
    TakeSelection(range, mLink.Self());
  }
  return refusal;
}

Trel_LinkRefusal Trel_SharedState::EnableGroup(ETrel_Group group, bool isOn) {
  const Trel_LinkRefusal refusal = mLink.WhyNotInControl();
  if (refusal != Trel_LinkRefusal::none) {
    return refusal;
  }
  if (mLink.IsMaster()) {
    TakeGroup(group, isOn, mLink.Self());
  } else { // the master keeps the groups and tells everybody, this system too
    mLink.Send({mLink.Master()}, Message::RequestGroupEnable{group, isOn});
  }
  return refusal;
}

Trel_LinkRefusal Trel_SharedState::SoloAll(bool isOn) {
  const Trel_LinkRefusal refusal = mLink.WhyNotInControl();
  if (refusal == Trel_LinkRefusal::none) {
    SetSoloed(isOn);
    mLink.Send(mLink.Listeners(mLink.Self()), Message::SoloAllTracks{isOn});
  }
  return refusal;
}

void Trel_SharedState::TakeLoopPlay(bool isOn, std::uint32_t by) {
  if (std::exchange(mShared.loopPlay, isOn) != isOn) {
    mLink.Tell({.kind = Kind::loopPlay, .system = mLink.Describe(by), .isOn = isOn});
    mLink.Send(mLink.Listeners(by), Message::SetLoopPlay{isOn});
  }
}

void Trel_SharedState::TakeSelection(const Trel_PlayRange& range, std::uint32_t by) {
  if (std::exchange(mShared.selection, range) != range) {
    mLink.Tell({.kind = Kind::selection, .system = mLink.Describe(by), .range = range});
    mLink.Send(mLink.Listeners(by), Message::SetCurrentSelection{range});
  }
}

void Trel_SharedState::TakeGroup(ETrel_Group group, bool isOn, std::uint32_t by) {
  auto groups = mShared.groups;
  if (group == eTrel_Group_All) {
    groups.fill(isOn);
  } else if (group >= eTrel_Group_1 && group <= eTrel_Group_4) {
    groups.at(static_cast<std::size_t>(group - eTrel_Group_1)) = isOn;
  }
  if (std::exchange(mShared.groups, groups) != groups) {
    mLink.Tell({.kind = Kind::groups, .system = mLink.Describe(by), .groups = groups});
    SendToAll(Message::UpdateGroupEnable{groups});
  }
}

// --- what this system asks others for -------------------------------------------------------------------------------

Trel_LinkRefusal Trel_SharedState::Request(const Message::Any& message, std::uint32_t address) {
  const std::set<std::uint32_t> linked = mLink.GetLinkedAddresses();
  if (address != 0 && !linked.contains(address)) {
    return Trel_LinkRefusal::unknownSystem;
  }
  mLink.Send(address == 0 ? linked : std::set{address}, message);
  return Trel_LinkRefusal::none;
}

Trel_LinkRefusal Trel_SharedState::RequestOnline(bool isOn, std::uint32_t address) {
  const Trel_LinkRefusal refusal = mLink.WhyNotInControl();
  return refusal == Trel_LinkRefusal::none ? Request(Message::RequestOnline{isOn}, address) : refusal;
}

Trel_LinkRefusal Trel_SharedState::RequestTakingPart(bool isOn, std::uint32_t address) {
  const Trel_LinkRefusal refusal = mLink.IsMaster() ? Trel_LinkRefusal::none : mLink.WhyNotInControl();
  return refusal == Trel_LinkRefusal::none ? Request(Message::RequestLink{isOn}, address) : refusal;
}

Trel_LinkRefusal Trel_SharedState::PressButton(bool isOK) {
  const bool isAnywhere = !mOwn.dialog.empty() || std::any_of(mOthers.begin(), mOthers.end(), [](const auto& other) {
    return !other.second.dialog.empty();
  });
  if (!isAnywhere) {
    return Trel_LinkRefusal::noDialog;
  }
  Press(isOK, mLink.Self());
  return Trel_LinkRefusal::none;
}

void Trel_SharedState::Press(bool isOK, std::uint32_t by) {
  if (!std::exchange(mOwn.dialog, std::string()).empty()) {
    mLink.Tell({.kind = Kind::dialogClosed, .system = mLink.Describe(by), .isOn = isOK});
    TellOthers();
    return;
  }
  for (const auto& [address, other] : mOthers) {
    if (!other.dialog.empty() && address != by) {
      mLink.Send({address}, isOK ? Message::Any(Message::OKDialog{}) : Message::CancelDialog{});
      return;
    }
  }
}

// --- what others tell -----------------------------------------------------------------------------------------------

bool Trel_SharedState::Admits(Wish wish, std::uint32_t by) {
  const bool admits = mLink.MayConduct(by);
  if (!admits) {
    mLink.TellRefused(wish, by);
  }
  return admits;
}

bool Trel_SharedState::ChangeOther(Kind kind, std::uint32_t address, bool Trel_SystemState::*flag, bool isOn) {
  if (std::exchange(mOthers[address].*flag, isOn) == isOn) {
    return false;
  }
  mLink.Tell({.kind = kind, .system = mLink.Describe(address), .isOn = isOn});
  return true;
}

void Trel_SharedState::On(std::uint32_t from, const Message::SendState& message) {
  Trel_SystemState& other = mOthers[from];
  mDoubted.erase(from);
  if (std::exchange(other.transport, message.transport) != message.transport) {
    mLink.Tell({.kind = Kind::transport, .system = mLink.Describe(from), .state = other});
  }
}

void Trel_SharedState::On(std::uint32_t from, const Message::ClockLockState& message) {
  ChangeOther(Kind::clock, from, &Trel_SystemState::isClockLocked, message.isOn);
}

void Trel_SharedState::On(std::uint32_t from, const Message::UpdateLinkState& message) {
  Trel_SystemState& other = mOthers[from];
  const bool before = other.IsTakingPart();
  if (std::exchange(other.link, message.link) == message.link) {
    return;
  }
  mLink.Tell({.kind = Kind::takingPart,
              .value = before == other.IsTakingPart() ? 1 : 0,
              .system = mLink.Describe(from),
              .isOn = other.IsTakingPart(),
              .state = other});
}

void Trel_SharedState::On(std::uint32_t from, const Message::RequestLink& message) {
  if (Admits(Wish::takePart, from)) {
    SetTakingPart(message.isOn);
  }
}

void Trel_SharedState::On(std::uint32_t from, const Message::UpdateOnlineState& message) {
  ChangeOther(Kind::online, from, &Trel_SystemState::isOnline, message.isOn);
}

void Trel_SharedState::On(std::uint32_t from, const Message::RequestOnline& message) {
  if (Admits(Wish::online, from)) {
    SetOnline(message.isOn);
  }
}

void Trel_SharedState::On(std::uint32_t from, const Message::UpdateSystemIsRecording& message) {
  if (ChangeOther(Kind::recording, from, &Trel_SystemState::isRecording, message.isOn) && mLink.IsMaster()) {
    TellOthers();
  }
}

void Trel_SharedState::On(std::uint32_t from, const Message::TrackIsSoloed& message) {
  if (ChangeOther(Kind::soloed, from, &Trel_SystemState::isSoloed, message.isOn) && mLink.IsMaster()) {
    TellOthers();
  }
}

void Trel_SharedState::On(std::uint32_t from, const Message::SoloAllTracks& message) {
  if (!Admits(Wish::soloAll, from)) {
    return;
  }
  SetSoloed(message.isOn);
  mLink.Send(mLink.Listeners(from), message);
}

void Trel_SharedState::On(std::uint32_t from, const Message::SetLoopPlay& message) {
  if (Admits(Wish::loopPlay, from)) {
    TakeLoopPlay(message.isOn, from);
  } else if (mLink.IsMaster()) { // it may have had control when it said so
    mLink.Send({from}, Message::SetLoopPlay{mShared.loopPlay});
  }
}

void Trel_SharedState::On(std::uint32_t from, const Message::SetCurrentSelection& message) {
  if (Admits(Wish::selection, from)) {
    TakeSelection(message.range, from);
  } else if (mLink.IsMaster()) {
    mLink.Send({from}, Message::SetCurrentSelection{mShared.selection});
  }
}

void Trel_SharedState::On(std::uint32_t from, const Message::RequestGroupEnable& message) {
  if (mLink.IsMaster() && Admits(Wish::groups, from)) {
    TakeGroup(message.group, message.isOn, from);
  }
}

void Trel_SharedState::On(std::uint32_t from, const Message::UpdateGroupEnable& message) {
  if (!mLink.IsMaster() && Admits(Wish::groups, from) &&
      std::exchange(mShared.groups, message.groups) != message.groups) {
    mLink.Tell({.kind = Kind::groups, .system = mLink.Describe(from), .groups = message.groups});
  }
}

void Trel_SharedState::On(std::uint32_t from, const Message::VideoReferenceAvailable& message) {
  if (!message.isOn) {
    mOthers[from].videoReference = eTrel_VideoReferenceFormat_Undefined;
  }
}

void Trel_SharedState::On(std::uint32_t from, const Message::VideoReferenceFormat& message) {
  Trel_SystemState& other = mOthers[from];
  if (std::exchange(other.videoReference, message.format) != message.format) {
    mLink.Tell({.kind = Kind::videoReference, .system = mLink.Describe(from), .state = other});
  }
}

void Trel_SharedState::On(std::uint32_t from, const Message::DialogOnScreen& message) {
  if (std::exchange(mOthers[from].dialog, message.text) == message.text) {
    return;
  }
  mLink.Tell({.kind = Kind::dialog, .system = mLink.Describe(from), .words = message.text});
  if (mLink.IsMaster()) {
    TellOthers();
  }
}

void Trel_SharedState::On(std::uint32_t from, const Message::OKDialog& /*message*/) { Press(true, from); }

void Trel_SharedState::On(std::uint32_t from, const Message::CancelDialog& /*message*/) { Press(false, from); }
