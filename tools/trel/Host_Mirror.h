#pragma once

#include "Host_State.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

class Host_Clock;
class Host_Events;
class Host_Link;
class Host_Sender;
class Trel_Cmd_CancelDialog;
class Trel_Cmd_ClockLockState;
class Trel_Cmd_DialogOnScreen;
class Trel_Cmd_GetCurrentSelection;
class Trel_Cmd_GetLoopPlay;
class Trel_Cmd_GetState;
class Trel_Cmd_GetTrackIsSoloed;
class Trel_Cmd_OKDialog;
class Trel_Cmd_RequestGroupEnable;
class Trel_Cmd_RequestLink;
class Trel_Cmd_RequestOnline;
class Trel_Cmd_SendState;
class Trel_Cmd_SetCurrentSelection;
class Trel_Cmd_SetLoopPlay;
class Trel_Cmd_SoloAllTracks;
class Trel_Cmd_TrackIsSoloed;
class Trel_Cmd_UpdateGroupEnable;
class Trel_Cmd_UpdateLinkState;
class Trel_Cmd_UpdateOnlineState;
class Trel_Cmd_UpdateSystemIsRecording;
class Trel_Cmd_VideoReferenceAvailable;
class Trel_Cmd_VideoReferenceFormat;

/// Keeps the state of the systems mirrored: tells the others what changes here, takes in what they tell, shows it.
///
/// The satellites of a star hear each other through the master. It passes on what the system in control sets (loop
/// play, selection, groups), and tells each satellite whether any other system records or has a track soloed.
class Host_Mirror {
public:
  Host_Mirror(Host_Link& link, Host_State& state, Host_Clock& clock, Host_Sender& sender, Host_Events& events);
  /// Before the engine starts.
  void SetHandlers();

  // What belongs to this system.
  void SetTransport(ETrel_State transport);
  void SetSolo(bool on);
  void SetRecording(bool on);
  void SetOnline(bool on);
  /// Whether this system plays when the others do; nothing: as before, but the clock has got or lost its lock.
  void SetTakingPart(std::optional<bool> wish);
  void SetVideoReference(ETrel_VideoReferenceFormat format);
  void ShowDialog(const std::string& text);

  // What belongs to all. These throw Host_Error unless this system is in control.
  void SetLoopPlay(bool on);
  void SetSelection(const Host_State::Selection& selection);
  void EnableGroup(ETrel_Group group, bool on);
  void SoloAll(bool on);

  // What this system asks others for.
  void RequestOnline(bool on, std::uint32_t address);
  void RequestTakingPart(bool on, std::uint32_t address);
  /// Presses a button of the dialog that is on screen here or elsewhere; throws Host_Error when there is none.
  void PressButton(bool isOK);

  /// Tells a system that has just been linked how things stand.
  void Greet(std::uint32_t address);
  /// What a system told on connections before the present one.
  void Forget(std::uint32_t address);
  /// What a system told that has no connection any more. One that is back has been forgotten when it came.
  void ForgetUnlessConnected(std::uint32_t address);
  /// Called often: what depends on the clock follows it.
  void Tick();
  /// Shows that somebody who may not do so has asked for something.
  void Refuse(const char* what, std::uint32_t address, const std::string& why = {});

private:
  using Send = std::function<void(std::uint32_t address)>;

  void SendTo(std::uint32_t address, Send send);
  void SendToLinked(Send send, std::uint32_t except = 0);
  /// Whether somebody may set what belongs to all; shows it when not.
  bool Admits(const char* what, std::uint32_t address);
  /// Takes in and shows a flag of another system.
  void TakeFlag(const char* kind, std::uint32_t address, bool Host_State::System::*flag, bool on, const char* textOn,
                const char* textOff);
  /// Changes and shows a flag of this system. False when it is so already.
  bool ChangeFlag(const char* kind, bool Host_State::System::*flag, bool on, const char* textOn, const char* textOff);
  template <class Condition>
  void ForgetIf(std::uint32_t address, Condition condition);
  /// Master: tells each satellite whether any other system has a flag set.
  void PassOn(bool Host_State::System::*flag, void (*send)(bool on, std::uint32_t address));

  void TakeLoopPlay(bool on, std::uint32_t by);
  void TakeSelection(const Host_State::Selection& selection, std::uint32_t by);
  void TakeGroup(ETrel_Group group, bool on, std::uint32_t by);
  void TellGroups(std::uint32_t by);
  void Press(bool isOK, std::uint32_t by);

  void OnSendState(Trel_Cmd_SendState& command);
  void OnClockLockState(Trel_Cmd_ClockLockState& command);
  void OnUpdateLinkState(Trel_Cmd_UpdateLinkState& command);
  void OnRequestLink(Trel_Cmd_RequestLink& command);
  void OnUpdateOnlineState(Trel_Cmd_UpdateOnlineState& command);
  void OnRequestOnline(Trel_Cmd_RequestOnline& command);
  void OnUpdateSystemIsRecording(Trel_Cmd_UpdateSystemIsRecording& command);
  void OnTrackIsSoloed(Trel_Cmd_TrackIsSoloed& command);
  void OnSoloAllTracks(Trel_Cmd_SoloAllTracks& command);
  void OnSetLoopPlay(Trel_Cmd_SetLoopPlay& command);
  void OnSetCurrentSelection(Trel_Cmd_SetCurrentSelection& command);
  void OnRequestGroupEnable(Trel_Cmd_RequestGroupEnable& command);
  void OnUpdateGroupEnable(Trel_Cmd_UpdateGroupEnable& command);
  void OnVideoReferenceFormat(Trel_Cmd_VideoReferenceFormat& command);
  void OnVideoReferenceAvailable(Trel_Cmd_VideoReferenceAvailable& command);
  void OnDialogOnScreen(Trel_Cmd_DialogOnScreen& command);
  void OnOKDialog(Trel_Cmd_OKDialog& command);
  void OnCancelDialog(Trel_Cmd_CancelDialog& command);
  void OnGetState(Trel_Cmd_GetState& command);
  void OnGetLoopPlay(Trel_Cmd_GetLoopPlay& command);
  void OnGetTrackIsSoloed(Trel_Cmd_GetTrackIsSoloed& command);
  void OnGetCurrentSelection(Trel_Cmd_GetCurrentSelection& command);

  Host_Link& mLink;
  Host_State& mState;
  Host_Clock& mClock;
  Host_Sender& mSender;
  Host_Events& mEvents;
};
