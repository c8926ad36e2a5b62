#include "Host_Mirror.h"

#include "HandleCommand.h"
#include "Host_Clock.h"
#include "Host_Error.h"
#include "Host_Events.h"
#include "Host_Link.h"
#include "Host_Sender.h"
#include "Texts.h"

#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_Cmd_Control.h>
#include <trel/Trel_Cmd_Dialogs.h>
#include <trel/Trel_Cmd_Grouping.h>
#include <trel/Trel_Cmd_Selection.h>
#include <trel/Trel_Cmd_State.h>
#include <trel/Trel_Cmd_Transport.h>
#include <trel/Trel_Cmd_Video.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_Messenger.h>

#include <algorithm>
#include <sstream>
#include <utility>

namespace {

void SendSelection(const Host_State::Selection& selection, std::uint32_t address) {
  Trel_Messenger::SetCurrentSelection(selection.in, selection.in, selection.out, selection.out, selection.in, false,
                                      false, Trel_Cmd_SetCurrentSelection::eUpdateVideoTo_Default, address);
}

void SendVideoReference(ETrel_VideoReferenceFormat format, std::uint32_t address) {
  Trel_Messenger::VideoReferenceAvailable(format != eTrel_VideoReferenceFormat_Undefined, address);
  Trel_Messenger::VideoReferenceFormat(format, address);
}

void SendDialog(const std::string& text, std::uint32_t address) {
  Trel_Messenger::DialogOnScreen(text.empty() ? eTrel_DialogType_None : eTrel_DialogType_Unknown, text.c_str(),
                                 address);
}

} // namespace

Host_Mirror::Host_Mirror(Host_Link& link, Host_State& state, Host_Clock& clock, Host_Sender& sender,
                         Host_Events& events)
    : mLink(link), mState(state), mClock(clock), mSender(sender), mEvents(events) {}

void Host_Mirror::SetHandlers() {
  HandleCommand<Trel_Cmd_SendState, &Host_Mirror::OnSendState>(this);
  HandleCommand<Trel_Cmd_ClockLockState, &Host_Mirror::OnClockLockState>(this);
  HandleCommand<Trel_Cmd_UpdateLinkState, &Host_Mirror::OnUpdateLinkState>(this);
  HandleCommand<Trel_Cmd_RequestLink, &Host_Mirror::OnRequestLink>(this);
  HandleCommand<Trel_Cmd_UpdateOnlineState, &Host_Mirror::OnUpdateOnlineState>(this);
  HandleCommand<Trel_Cmd_RequestOnline, &Host_Mirror::OnRequestOnline>(this);
  HandleCommand<Trel_Cmd_UpdateSystemIsRecording, &Host_Mirror::OnUpdateSystemIsRecording>(this);
  HandleCommand<Trel_Cmd_TrackIsSoloed, &Host_Mirror::OnTrackIsSoloed>(this);
  HandleCommand<Trel_Cmd_SoloAllTracks, &Host_Mirror::OnSoloAllTracks>(this);
  HandleCommand<Trel_Cmd_SetLoopPlay, &Host_Mirror::OnSetLoopPlay>(this);
  HandleCommand<Trel_Cmd_SetCurrentSelection, &Host_Mirror::OnSetCurrentSelection>(this);
  HandleCommand<Trel_Cmd_RequestGroupEnable, &Host_Mirror::OnRequestGroupEnable>(this);
  HandleCommand<Trel_Cmd_UpdateGroupEnable, &Host_Mirror::OnUpdateGroupEnable>(this);
  HandleCommand<Trel_Cmd_VideoReferenceFormat, &Host_Mirror::OnVideoReferenceFormat>(this);
  HandleCommand<Trel_Cmd_VideoReferenceAvailable, &Host_Mirror::OnVideoReferenceAvailable>(this);
  HandleCommand<Trel_Cmd_DialogOnScreen, &Host_Mirror::OnDialogOnScreen>(this);
  HandleCommand<Trel_Cmd_OKDialog, &Host_Mirror::OnOKDialog>(this);
  HandleCommand<Trel_Cmd_CancelDialog, &Host_Mirror::OnCancelDialog>(this);
  HandleCommand<Trel_Cmd_GetState, &Host_Mirror::OnGetState>(this);
  HandleCommand<Trel_Cmd_GetLoopPlay, &Host_Mirror::OnGetLoopPlay>(this);
  HandleCommand<Trel_Cmd_GetTrackIsSoloed, &Host_Mirror::OnGetTrackIsSoloed>(this);
  HandleCommand<Trel_Cmd_GetCurrentSelection, &Host_Mirror::OnGetCurrentSelection>(this);
}

// --- this system's own ---

void Host_Mirror::SetTransport(ETrel_State transport) {
  const bool hasChanged = mState.ChangeOwn(
      [transport](Host_State::System& own) { return std::exchange(own.transport, transport) != transport; });
  if (hasChanged) {
    SendToLinked([transport](std::uint32_t address) { Trel_Messenger::SendState(transport, address); });
  }
}

void Host_Mirror::SetSolo(bool on) {
  if (ChangeFlag("solo", &Host_State::System::isSoloed, on, "a track is soloed here", "no track is soloed here")) {
    if (mLink.IsMaster()) {
      PassOn(&Host_State::System::isSoloed, &Trel_Messenger::TrackIsSoloed);
    } else {
      SendToLinked([on](std::uint32_t address) { Trel_Messenger::TrackIsSoloed(on, address); });
    }
  }
}

void Host_Mirror::SetRecording(bool on) {
  if (ChangeFlag("record", &Host_State::System::isRecording, on, "this system records",
                 "this system does not record")) {
    if (mLink.IsMaster()) {
      PassOn(&Host_State::System::isRecording, &Trel_Messenger::UpdateRecordState);
    } else {
      SendToLinked([on](std::uint32_t address) { Trel_Messenger::UpdateRecordState(on, address); });
    }
  }
}

void Host_Mirror::SetOnline(bool on) {
  if (ChangeFlag("online", &Host_State::System::isOnline, on, "this system is on line", "this system is off line")) {
    SendToLinked([on](std::uint32_t address) { Trel_Messenger::UpdateOnlineState(on, address); });
  }
}

void Host_Mirror::SetTakingPart(std::optional<bool> wish) {
  const bool isLocked = mClock.IsLocked();
  const auto isOn = [](ETrel_LinkState link) { return link >= eTrel_LinkState_LinkedNotPlayable; };
  const auto [before, wanted] = mState.ChangeOwn([&](Host_State::System& own) {
    const ETrel_LinkState link = !wish.value_or(isOn(own.link)) ? eTrel_LinkState_Linkable
                                 : isLocked                     ? eTrel_LinkState_LinkedPlayable
                                                                : eTrel_LinkState_LinkedNotPlayable;
    return std::pair(std::exchange(own.link, link), link);
  });
  if (before == wanted) {
    return;
  }
  nlohmann::json fields = mLink.FieldsOf(Host_Link::OwnAddress());
  fields["on"] = isOn(wanted);
  fields["clock_locked"] = isLocked;
  mEvents.Tell({.kind = "link",
                .text = isOn(wanted) ? "this system plays along" : "this system does not play along",
                .fields = std::move(fields),
                .isDetail = isOn(before) == isOn(wanted)});
  SendToLinked([link = wanted](std::uint32_t address) { Trel_Messenger::UpdateLinkState(link, address); });
}

void Host_Mirror::SetVideoReference(ETrel_VideoReferenceFormat format) {
  mState.ChangeOwn([format](Host_State::System& own) { own.videoReference = format; });
  SendToLinked([format](std::uint32_t address) { SendVideoReference(format, address); });
}

void Host_Mirror::ShowDialog(const std::string& text) {
  mState.ChangeOwn([&text](Host_State::System& own) { own.dialog = text; });
  SendToLinked([text](std::uint32_t address) { SendDialog(text, address); });
}

// --- everybody's ---

void Host_Mirror::SetLoopPlay(bool on) {
  mLink.ExpectControl();
  TakeLoopPlay(on, Host_Link::OwnAddress());
}

void Host_Mirror::SetSelection(const Host_State::Selection& selection) {
  mLink.ExpectControl();
  TakeSelection(selection, Host_Link::OwnAddress());
}

void Host_Mirror::EnableGroup(ETrel_Group group, bool on) {
  mLink.ExpectControl();
  if (mLink.IsMaster()) {
    TakeGroup(group, on, Host_Link::OwnAddress());
  } else {
    // The master keeps the groups and tells everybody, this system too.
    SendTo(Trel_CommManager::GetMasterSystemIPAddress(),
           [group, on](std::uint32_t address) { Trel_Messenger::RequestGroupEnable(group, on, address); });
  }
}

void Host_Mirror::SoloAll(bool on) {
  mLink.ExpectControl();
  SetSolo(on);
  SendToLinked([on](std::uint32_t address) { Trel_Messenger::SoloAllTracks(on, address); });
}

void Host_Mirror::RequestOnline(bool on, std::uint32_t address) {
  SendTo(address, [on](std::uint32_t to) { Trel_Messenger::RequestOnline(on, to); });
}

void Host_Mirror::RequestTakingPart(bool on, std::uint32_t address) {
  SendTo(address, [on](std::uint32_t to) { Trel_Messenger::RequestLink(on, to); });
}

void Host_Mirror::PressButton(bool isOK) {
  const auto others = mState.GetOthers();
  const bool isAnywhere =
      !mState.GetOwn().dialog.empty() ||
      std::any_of(others.begin(), others.end(), [](const auto& other) { return !other.second.dialog.empty(); });
  if (!isAnywhere) {
    throw Host_Error("there is no dialog on any screen; put one up with: dialog TEXT");
  }
  Press(isOK, Host_Link::OwnAddress());
}

void Host_Mirror::Greet(std::uint32_t address) {
  SendTo(address, [this](std::uint32_t to) {
    const Host_State::System own = mState.GetOwn();
    Trel_Messenger::SendState(own.transport, to);
    Trel_Messenger::UpdateLinkState(own.link, to);
    Trel_Messenger::UpdateOnlineState(own.isOnline, to);
    SendVideoReference(own.videoReference, to);
    if (!own.dialog.empty()) {
      SendDialog(own.dialog, to);
    }
    if (!mLink.IsMaster()) {
      Trel_Messenger::TrackIsSoloed(own.isSoloed, to);
      Trel_Messenger::UpdateRecordState(own.isRecording, to);
      return;
    }
    const Host_State::Shared shared = mState.GetShared();
    Trel_Messenger::SetLoopPlay(shared.loopPlay, to);
    SendSelection(shared.selection, to);
    Trel_Messenger::UpdateGroupEnable(shared.groups.data(), to);
  });
  if (mLink.IsMaster()) {
    PassOn(&Host_State::System::isSoloed, &Trel_Messenger::TrackIsSoloed);
    PassOn(&Host_State::System::isRecording, &Trel_Messenger::UpdateRecordState);
  }
}

void Host_Mirror::Forget(std::uint32_t address) {
  ForgetIf(address, [] { return true; });
}

void Host_Mirror::ForgetUnlessConnected(std::uint32_t address) {
  ForgetIf(address, [address] { return !Trel_CommManager::IsConnected(address); });
}

template <class Condition>
void Host_Mirror::ForgetIf(std::uint32_t address, Condition condition) {
  if (mState.ForgetIf(address, condition) && mLink.IsMaster()) {
    PassOn(&Host_State::System::isSoloed, &Trel_Messenger::TrackIsSoloed);
    PassOn(&Host_State::System::isRecording, &Trel_Messenger::UpdateRecordState);
  }
}

void Host_Mirror::Tick() {
  const bool isLocked = mClock.IsLocked();
  const bool wasLocked =
      mState.ChangeOwn([isLocked](Host_State::System& own) { return std::exchange(own.isClockLocked, isLocked); });
  if (isLocked == wasLocked) {
    return;
  }
  if (!mLink.IsMaster()) {
    nlohmann::json fields = mLink.FieldsOf(Host_Link::OwnAddress());
    fields["on"] = isLocked;
    mEvents.Tell({.kind = "clock",
                  .text = isLocked ? "the clock of this system is locked to the master's"
                                   : "the clock of this system is not locked to the master's any more",
                  .fields = std::move(fields)});
  }
  SetTakingPart(std::nullopt);
}

void Host_Mirror::Refuse(const char* what, std::uint32_t address, const std::string& why) {
  nlohmann::json fields = mLink.FieldsOf(address);
  fields["what"] = what;
  mEvents.Tell({.kind = "refused",
                .text = std::string(what) + " from " + mLink.NameOf(address) +
                        " was refused: " + (why.empty() ? "that system is not in control" : why),
                .fields = std::move(fields)});
}

// --- the ways out ---

void Host_Mirror::SendTo(std::uint32_t address, Send send) {
  mSender.Send([address, send = std::move(send)] { send(address); });
}

void Host_Mirror::SendToLinked(Send send, std::uint32_t except) {
  mSender.Send([this, send = std::move(send), except] {
    for (const std::uint32_t address : mLink.Linked()) {
      if (address != except) {
        send(address);
      }
    }
  });
}

void Host_Mirror::PassOn(bool Host_State::System::*flag, void (*send)(bool on, std::uint32_t address)) {
  SendToLinked([this, flag, send](std::uint32_t address) {
    const auto others = mState.GetOthers();
    const bool isAnyOther =
        mState.GetOwn().*flag || std::any_of(others.begin(), others.end(), [address, flag](const auto& other) {
          return other.first != address && other.second.*flag;
        });
    send(isAnyOther, address);
  });
}

// --- the ways in ---

bool Host_Mirror::Admits(const char* what, std::uint32_t address) {
  const bool admits = mLink.MayConduct(address);
  if (!admits) {
    Refuse(what, address);
  }
  return admits;
}

bool Host_Mirror::ChangeFlag(const char* kind, bool Host_State::System::*flag, bool on, const char* textOn,
                             const char* textOff) {
  const bool hasChanged =
      mState.ChangeOwn([flag, on](Host_State::System& own) { return std::exchange(own.*flag, on) != on; });
  if (hasChanged) {
    nlohmann::json fields = mLink.FieldsOf(Host_Link::OwnAddress());
    fields["on"] = on;
    mEvents.Tell({.kind = kind, .text = on ? textOn : textOff, .fields = std::move(fields)});
  }
  return hasChanged;
}

void Host_Mirror::TakeFlag(const char* kind, std::uint32_t address, bool Host_State::System::*flag, bool on,
                           const char* textOn, const char* textOff) {
  const bool hasChanged = mState.ChangeOther(
      address, [flag, on](Host_State::System& other) { return std::exchange(other.*flag, on) != on; });
  if (hasChanged) {
    nlohmann::json fields = mLink.FieldsOf(address);
    fields["on"] = on;
    mEvents.Tell(
        {.kind = kind, .text = mLink.NameOf(address) + ": " + (on ? textOn : textOff), .fields = std::move(fields)});
  }
}

void Host_Mirror::TakeLoopPlay(bool on, std::uint32_t by) {
  const bool hasChanged =
      mState.ChangeShared([on](Host_State::Shared& shared) { return std::exchange(shared.loopPlay, on) != on; });
  if (!hasChanged) {
    return;
  }
  nlohmann::json fields = mLink.FieldsOf(by);
  fields["on"] = on;
  mEvents.Tell({.kind = "loop",
                .text = std::string("loop play is ") + (on ? "on" : "off") + ", told by " + mLink.NameOf(by),
                .fields = std::move(fields)});
  if (mLink.IsMaster() || by == Host_Link::OwnAddress()) {
    SendToLinked([on](std::uint32_t address) { Trel_Messenger::SetLoopPlay(on, address); }, by);
  }
}

void Host_Mirror::TakeSelection(const Host_State::Selection& selection, std::uint32_t by) {
  const bool hasChanged = mState.ChangeShared(
      [&selection](Host_State::Shared& shared) { return std::exchange(shared.selection, selection) != selection; });
  if (!hasChanged) {
    return;
  }
  std::ostringstream text;
  constexpr double kMicrosecondsOfSecond = 1e6;
  text << "selection from " << static_cast<double>(selection.in) / kMicrosecondsOfSecond << " s to "
       << static_cast<double>(selection.out) / kMicrosecondsOfSecond << " s, told by " << mLink.NameOf(by);
  nlohmann::json fields = mLink.FieldsOf(by);
  fields["in_us"] = selection.in;
  fields["out_us"] = selection.out;
  mEvents.Tell({.kind = "selection", .text = text.str(), .fields = std::move(fields)});
  if (mLink.IsMaster() || by == Host_Link::OwnAddress()) {
    SendToLinked([selection](std::uint32_t address) { SendSelection(selection, address); }, by);
  }
}

void Host_Mirror::TakeGroup(ETrel_Group group, bool on, std::uint32_t by) {
  const bool hasChanged = mState.ChangeShared([group, on](Host_State::Shared& shared) {
    const auto before = shared.groups;
    if (group == eTrel_Group_All) {
      shared.groups.fill(on);
    } else if (group >= eTrel_Group_1 && group <= eTrel_Group_4) {
      shared.groups.at(static_cast<std::size_t>(group - eTrel_Group_1)) = on;
    }
    return shared.groups != before;
  });
  if (hasChanged) {
    TellGroups(by);
    const auto groups = mState.GetShared().groups;
    SendToLinked([groups](std::uint32_t address) { Trel_Messenger::UpdateGroupEnable(groups.data(), address); });
  }
}

void Host_Mirror::TellGroups(std::uint32_t by) {
  const auto groups = mState.GetShared().groups;
  std::string text;
  for (std::size_t group = 0; group < groups.size(); ++group) {
    text += groups.at(group) ? " " + std::to_string(group + 1) : "";
  }
  nlohmann::json fields = mLink.FieldsOf(by);
  fields["enabled"] = groups;
  mEvents.Tell({.kind = "groups",
                .text = "groups that are enabled:" + (text.empty() ? " none" : text) + ", told by " + mLink.NameOf(by),
                .fields = std::move(fields)});
}

void Host_Mirror::Press(bool isOK, std::uint32_t by) {
  const char* const button = isOK ? "ok" : "cancel";
  const bool wasHere =
      mState.ChangeOwn([](Host_State::System& own) { return !std::exchange(own.dialog, std::string()).empty(); });
  if (wasHere) {
    nlohmann::json fields = mLink.FieldsOf(by);
    fields["button"] = button;
    mEvents.Tell({.kind = "dialog_closed",
                  .text = std::string("the dialog here was closed with ") + button + " by " + mLink.NameOf(by),
                  .fields = std::move(fields)});
    SendToLinked([](std::uint32_t address) { SendDialog({}, address); });
    return;
  }
  for (const auto& [address, system] : mState.GetOthers()) {
    if (!system.dialog.empty() && address != by) {
      SendTo(address, isOK ? &Trel_Messenger::OKDialog : &Trel_Messenger::CancelDialog);
      return;
    }
  }
}

// --- handlers ---

void Host_Mirror::OnSendState(Trel_Cmd_SendState& command) {
  const std::uint32_t from = command.GetIPAddressFrom();
  const ETrel_State transport = command.GetState();
  const bool hasChanged = mState.ChangeOther(
      from, [transport](Host_State::System& other) { return std::exchange(other.transport, transport) != transport; });
  if (hasChanged) {
    nlohmann::json fields = mLink.FieldsOf(from);
    fields["transport"] = TransportText(transport);
    mEvents.Tell({.kind = "transport",
                  .text = mLink.NameOf(from) + ": " + TransportText(transport),
                  .fields = std::move(fields)});
  }
}

void Host_Mirror::OnClockLockState(Trel_Cmd_ClockLockState& command) {
  TakeFlag("clock", command.GetIPAddressFrom(), &Host_State::System::isClockLocked, command.GetClockLocked(),
           "its clock is locked", "its clock is not locked any more");
}

void Host_Mirror::OnUpdateLinkState(Trel_Cmd_UpdateLinkState& command) {
  const std::uint32_t from = command.GetIPAddressFrom();
  const ETrel_LinkState link = command.GetLinkState();
  const ETrel_LinkState before =
      mState.ChangeOther(from, [link](Host_State::System& other) { return std::exchange(other.link, link); });
  if (link == before) {
    return;
  }
  const bool on = link >= eTrel_LinkState_LinkedNotPlayable;
  nlohmann::json fields = mLink.FieldsOf(from);
  fields["on"] = on;
  mEvents.Tell({.kind = "link",
                .text = mLink.NameOf(from) + (on ? ": plays along" : ": does not play along"),
                .fields = std::move(fields),
                .isDetail = on == (before >= eTrel_LinkState_LinkedNotPlayable)});
}

void Host_Mirror::OnRequestLink(Trel_Cmd_RequestLink& command) {
  if (Admits(command.GetLink() ? "link on" : "link off", command.GetIPAddressFrom())) {
    SetTakingPart(command.GetLink());
  }
}

void Host_Mirror::OnUpdateOnlineState(Trel_Cmd_UpdateOnlineState& command) {
  TakeFlag("online", command.GetIPAddressFrom(), &Host_State::System::isOnline, command.GetOnline(), "is on line",
           "is off line");
}

void Host_Mirror::OnRequestOnline(Trel_Cmd_RequestOnline& command) {
  if (Admits(command.GetOnline() ? "online on" : "online off", command.GetIPAddressFrom())) {
    SetOnline(command.GetOnline());
  }
}

void Host_Mirror::OnUpdateSystemIsRecording(Trel_Cmd_UpdateSystemIsRecording& command) {
  TakeFlag("record", command.GetIPAddressFrom(), &Host_State::System::isRecording, command.GetSystemIsRecording(),
           "records", "does not record");
  if (mLink.IsMaster()) {
    PassOn(&Host_State::System::isRecording, &Trel_Messenger::UpdateRecordState);
  }
}

void Host_Mirror::OnTrackIsSoloed(Trel_Cmd_TrackIsSoloed& command) {
  TakeFlag("solo", command.GetIPAddressFrom(), &Host_State::System::isSoloed, command.GetTrackIsSoloed(),
           "a track is soloed", "no track is soloed");
  if (mLink.IsMaster()) {
    PassOn(&Host_State::System::isSoloed, &Trel_Messenger::TrackIsSoloed);
  }
}

void Host_Mirror::OnSoloAllTracks(Trel_Cmd_SoloAllTracks& command) {
  const std::uint32_t from = command.GetIPAddressFrom();
  const bool on = command.GetSolo();
  if (!Admits("solo all", from)) {
    return;
  }
  SetSolo(on);
  if (mLink.IsMaster()) {
    SendToLinked([on](std::uint32_t address) { Trel_Messenger::SoloAllTracks(on, address); }, from);
  }
}

void Host_Mirror::OnSetLoopPlay(Trel_Cmd_SetLoopPlay& command) {
  if (Admits("loop", command.GetIPAddressFrom())) {
    TakeLoopPlay(command.GetLoopPlay(), command.GetIPAddressFrom());
  }
}

void Host_Mirror::OnSetCurrentSelection(Trel_Cmd_SetCurrentSelection& command) {
  if (Admits("select", command.GetIPAddressFrom())) {
    TakeSelection({.in = command.GetInTime(), .out = command.GetOutTime()}, command.GetIPAddressFrom());
  }
}

void Host_Mirror::OnRequestGroupEnable(Trel_Cmd_RequestGroupEnable& command) {
  const std::uint32_t from = command.GetIPAddressFrom();
  if (mLink.IsMaster() && Admits("group", from)) {
    TakeGroup(command.GetGroup(), command.GetEnable(), from);
  }
}

void Host_Mirror::OnUpdateGroupEnable(Trel_Cmd_UpdateGroupEnable& command) {
  const std::uint32_t from = command.GetIPAddressFrom();
  if (mLink.IsMaster() || !Admits("group", from)) {
    return;
  }
  const bool hasChanged = mState.ChangeShared([&command](Host_State::Shared& shared) {
    const auto before = shared.groups;
    for (std::size_t group = 0; group < shared.groups.size(); ++group) {
      shared.groups.at(group) = command.GetEnable(group);
    }
    return shared.groups != before;
  });
  if (hasChanged) {
    TellGroups(from);
  }
}

void Host_Mirror::OnVideoReferenceFormat(Trel_Cmd_VideoReferenceFormat& command) {
  const std::uint32_t from = command.GetIPAddressFrom();
  const ETrel_VideoReferenceFormat format = command.GetVideoReferenceFormat();
  const bool hasChanged = mState.ChangeOther(
      from, [format](Host_State::System& other) { return std::exchange(other.videoReference, format) != format; });
  if (hasChanged) {
    nlohmann::json fields = mLink.FieldsOf(from);
    fields["format"] = VideoReferenceText(format);
    mEvents.Tell({.kind = "video_reference",
                  .text = mLink.NameOf(from) + ": video reference " + VideoReferenceText(format),
                  .fields = std::move(fields)});
  }
}

void Host_Mirror::OnVideoReferenceAvailable(Trel_Cmd_VideoReferenceAvailable& command) {
  if (!command.GetVideoRefAvailable()) {
    mState.ChangeOther(command.GetIPAddressFrom(),
                       [](Host_State::System& other) { other.videoReference = eTrel_VideoReferenceFormat_Undefined; });
  }
}

void Host_Mirror::OnDialogOnScreen(Trel_Cmd_DialogOnScreen& command) {
  const std::uint32_t from = command.GetIPAddressFrom();
  const std::string text = command.GetDialogType() == eTrel_DialogType_None ? "" : command.GetDialogMsg();
  const bool hasChanged = mState.ChangeOther(
      from, [&text](Host_State::System& other) { return std::exchange(other.dialog, text) != text; });
  if (!hasChanged) {
    return;
  }
  nlohmann::json fields = mLink.FieldsOf(from);
  fields["message"] = text;
  mEvents.Tell({.kind = "dialog",
                .text = mLink.NameOf(from) + (text.empty() ? ": its dialog is closed" : ": dialog: " + Printable(text)),
                .fields = std::move(fields)});
  if (mLink.IsMaster()) {
    SendToLinked([text](std::uint32_t address) { SendDialog(text, address); }, from);
  }
}

void Host_Mirror::OnOKDialog(Trel_Cmd_OKDialog& command) { Press(true, command.GetIPAddressFrom()); }

void Host_Mirror::OnCancelDialog(Trel_Cmd_CancelDialog& command) { Press(false, command.GetIPAddressFrom()); }

void Host_Mirror::OnGetState(Trel_Cmd_GetState& command) { command.SetState(mState.GetOwn().transport); }

void Host_Mirror::OnGetLoopPlay(Trel_Cmd_GetLoopPlay& command) { command.SetLoopPlay(mState.GetShared().loopPlay); }

void Host_Mirror::OnGetTrackIsSoloed(Trel_Cmd_GetTrackIsSoloed& command) {
  command.SetTrackIsSoloed(mState.GetOwn().isSoloed);
}

void Host_Mirror::OnGetCurrentSelection(Trel_Cmd_GetCurrentSelection& command) {
  const Host_State::Selection selection = mState.GetShared().selection;
  command.SetPreRollStartTime(selection.in);
  command.SetInTime(selection.in);
  command.SetOutTime(selection.out);
  command.SetPostRollStopTime(selection.out);
  command.SetPlayStartMarkerTime(selection.in);
}
