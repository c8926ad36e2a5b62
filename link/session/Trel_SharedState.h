#pragma once

#include "link/session/Trel_SessionLink.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>

/// What the systems of a link mirror to each other: tells the others what changes here, takes in what they tell.
///
/// The satellites of a star hear each other through the master. It passes on what the system in control sets (loop
/// play, selection, groups), and tells each satellite whether any other system records or has a track soloed.
class Trel_SharedState {
public:
  using Time = Trel_SessionTime;
  using Message = Trel_SessionMessage;

  explicit Trel_SharedState(Trel_SessionLink& link) : mLink(link) {}

  // --- what is
  const Trel_SystemState& Own() const { return mOwn; }
  const std::map<std::uint32_t, Trel_SystemState>& Others() const { return mOthers; }
  const Trel_SharedSettings& Shared() const { return mShared; }
  /// Of another system; as fresh when it has not told any.
  Trel_SystemState Of(std::uint32_t address) const;

  // --- who is there
  /// A system has been linked: tells it how things stand.
  void Linked(std::uint32_t address);
  /// What a system told on earlier connections does not hold any more.
  void Forget(std::uint32_t address);
  void ForgetAll();
  /// A system is told to prime: that it is primed does not hold until it has told anew. False when it is not.
  bool Doubt(std::uint32_t address);
  /// Those that have told nothing since then are what they were: some tell only what changes.
  void EndDoubt();
  /// The clock of this system has got or lost its lock.
  void NoteClock(bool isLocked);

  // --- this system's own
  void SetTransport(ETrel_State transport);
  void SetSoloed(bool isOn);
  void SetRecording(bool isOn);
  void SetOnline(bool isOn);
  /// Whether this system plays when the others do.
  void SetTakingPart(bool isOn);
  void SetVideoReference(ETrel_VideoReferenceFormat format);
  /// An empty text: none.
  void SetDialog(const std::string& text);

  // --- everybody's; refused unless this system is in control
  Trel_LinkRefusal SetLoopPlay(bool isOn);
  Trel_LinkRefusal SetSelection(const Trel_PlayRange& range);
  Trel_LinkRefusal EnableGroup(ETrel_Group group, bool isOn);
  Trel_LinkRefusal SoloAll(bool isOn);

  // --- what this system asks others for; address 0 means all that are linked
  Trel_LinkRefusal RequestOnline(bool isOn, std::uint32_t address);
  /// The master may too.
  Trel_LinkRefusal RequestTakingPart(bool isOn, std::uint32_t address);
  /// Presses a button of the dialog that is on a screen.
  Trel_LinkRefusal PressButton(bool isOK);

  // --- what others of the link tell
  void On(std::uint32_t from, const Message::SendState& message);
  void On(std::uint32_t from, const Message::ClockLockState& message);
  void On(std::uint32_t from, const Message::UpdateLinkState& message);
  void On(std::uint32_t from, const Message::RequestLink& message);
  void On(std::uint32_t from, const Message::UpdateOnlineState& message);
  void On(std::uint32_t from, const Message::RequestOnline& message);
  void On(std::uint32_t from, const Message::UpdateSystemIsRecording& message);
  void On(std::uint32_t from, const Message::TrackIsSoloed& message);
  void On(std::uint32_t from, const Message::SoloAllTracks& message);
  void On(std::uint32_t from, const Message::SetLoopPlay& message);
  void On(std::uint32_t from, const Message::SetCurrentSelection& message);
  void On(std::uint32_t from, const Message::RequestGroupEnable& message);
  void On(std::uint32_t from, const Message::UpdateGroupEnable& message);
  void On(std::uint32_t from, const Message::VideoReferenceAvailable& message);
  void On(std::uint32_t from, const Message::VideoReferenceFormat& message);
  void On(std::uint32_t from, const Message::DialogOnScreen& message);
  void On(std::uint32_t from, const Message::OKDialog& message);
  void On(std::uint32_t from, const Message::CancelDialog& message);

private:
  using Event = Trel_LinkEvent;
  using Kind = Event::Kind;
  using Wish = Event::Wish;

  /// To all linked systems.
  void SendToAll(const Message::Any& message);
  /// Whether somebody may set what belongs to all; tells the host when not.
  bool Admits(Wish wish, std::uint32_t by);
  /// Sets a flag of this system, and tells the host; false when it is so already.
  bool ChangeOwn(Kind kind, bool Trel_SystemState::*flag, bool isOn);
  bool ChangeOther(Kind kind, std::uint32_t address, bool Trel_SystemState::*flag, bool isOn);
  /// Link state of this system, from the host's wish and its clock.
  void ChangeLink(bool isTakingPart);
  /// Solo, record and dialog, to whoever does not know yet. A satellite tells its own; the master tells each satellite
  /// whether it or any other system has a track soloed, or records, and one of the dialogs.
  void TellOthers();
  bool IsToBeTold(bool Trel_SystemState::*flag, std::uint32_t address) const;
  const std::string& DialogFor(std::uint32_t address) const;
  void TakeLoopPlay(bool isOn, std::uint32_t by);
  void TakeSelection(const Trel_PlayRange& range, std::uint32_t by);
  void TakeGroup(ETrel_Group group, bool isOn, std::uint32_t by);
  void Press(bool isOK, std::uint32_t by);
  Trel_LinkRefusal Request(const Message::Any& message, std::uint32_t address);

  /// What a system knows from this one.
  struct Told {
    bool isSoloed = false;
    bool isRecording = false;
    std::string dialog{};
  };

  Trel_SessionLink& mLink;
  Trel_SharedSettings mShared;
  Trel_SystemState mOwn;
  std::map<std::uint32_t, Trel_SystemState> mOthers;
  std::map<std::uint32_t, Told> mTold;
  std::set<std::uint32_t> mDoubted;
};
