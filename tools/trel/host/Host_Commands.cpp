#include "tools/trel/host/Host_Commands.h"

#include "tools/trel/common/Texts.h"
#include "tools/trel/host/Host_Arguments.h"
#include "tools/trel/host/Host_ClockSampler.h"
#include "tools/trel/host/Host_Error.h"
#include "tools/trel/host/Host_Listing.h"
#include "tools/trel/host/Host_Session.h"
#include "tools/trel/host/Host_UsageError.h"

#include <trel/Sys_Socket.h>
#include <trel/TCPE_System.h>

#include <string>

namespace {

Trel_PlayRange TakeRange(Host_Arguments& arguments) {
  const std::int64_t in = arguments.TakeTime("the in point");
  const std::int64_t out = arguments.TakeTime("the out point");
  if (out < in) {
    throw Host_UsageError("the out point is before the in point");
  }
  return {.in = in, .out = out};
}

/// "all", which is 0, or an address.
std::uint32_t TakeWhom(Host_Arguments& arguments) { return arguments.Skip("all") ? 0 : arguments.TakeAddress(); }

const char* WhyUnready(Trel_LinkUnready reason) {
  switch (reason) {
  case Trel_LinkUnready::notPrimed:
    return "not primed";
  case Trel_LinkUnready::clockNotLocked:
    return "clock not locked";
  case Trel_LinkUnready::delayTooLong:
    return "needs more than 10 s to start";
  }
  return "";
}

nlohmann::json FieldsOf(const Percentiles& figures) {
  return {{"p50", figures.p50}, {"p99", figures.p99}, {"max", figures.max}};
}

} // namespace

std::vector<Host_Console::Command> Host_Commands::Table() {
  // Commands without arguments, and those with an on or off alone.
  const auto plain = [](auto action) {
    return [action](Host_Arguments& arguments) {
      arguments.ExpectEnd();
      return action();
    };
  };
  const auto withSwitch = [](auto action) {
    return [action](Host_Arguments& arguments) {
      const bool isOn = arguments.TakeSwitch();
      arguments.ExpectEnd();
      action(isOn);
      return Answer{};
    };
  };
  const auto member = [this](Answer (Host_Commands::*function)(Host_Arguments&)) {
    return [this, function](Host_Arguments& arguments) { return (this->*function)(arguments); };
  };
  return {
      {"systems", "", "lists the linked systems", "", plain([this] { return Host_ListSystems(mSession); })},
      {"state", "", "shows role, name, address, who is in control, clock and transport of this system", "",
       plain([this] { return Host_ShowState(mSession); })},
      {"prime", "[IN OUT]", "gets all systems ready to play the selection, or another range",
       "IN and OUT are positions on the timeline, as times. Only the system in control may do it.",
       member(&Host_Commands::Prime)},
      {"start", "[in TIME] [ready]", "starts all systems together, so long from now, or as soon as everybody can",
       "All must be primed and their clocks locked. Who is not, is named, and the others start without it; with ready\n"
       "nobody starts then.\n"
       "A system that the start reaches late begins at once, or not at all when it is too late (--max-late): with a\n"
       "time of your own give the message time to arrive everywhere, as in start in 500ms.\n"
       "Only the system in control may do it. The master then tells how far apart the systems really started.",
       member(&Host_Commands::Start)},
      {"stop", "", "stops all systems", "Only the system in control may do it.", plain([this] {
         mSession.Expect(mSession->StopPlayback());
         return Answer{};
       })},
      {"solo", "on|off [all]", "tells the others whether a track is soloed here; all: on all systems",
       "With all it is a command to all systems, and only the system in control may give it.",
       member(&Host_Commands::Solo)},
      {"loop", "on|off", "has all systems play in a loop, or not", "Only the system in control may do it.",
       withSwitch([this](bool isOn) { mSession.Expect(mSession->SetLoopPlay(isOn)); })},
      {"select", "IN OUT", "sets the selection on all systems",
       "IN and OUT are positions on the timeline, as times. Only the system in control may do it.",
       [this](Host_Arguments& arguments) {
         const Trel_PlayRange selection = TakeRange(arguments);
         arguments.ExpectEnd();
         mSession.Expect(mSession->SetSelection(selection));
         return Answer{};
       }},
      {"control", "", "asks for control: only the system in control can command the others (prime, start, stop, ...)",
       "The system that has control lets go, unless somebody else is asking for it at the same time.",
       plain([this] { return AskForControl(); })},
      {"name", "NAME", "gives this system another name", "At most 29 characters.", member(&Host_Commands::SetName)},
      {"order", "ADDRESS N", "puts a system at a place of the list (master)",
       "The system that has the place gets the one that becomes free.", member(&Host_Commands::SetOrder)},
      {"link", "on|off [ADDRESS|all]", "whether this system, or others, play when the rest does",
       "A system that is off stays connected, but does not prime or start. Only the system in control, or the master,\n"
       "may ask others.",
       member(&Host_Commands::SwitchLink)},
      {"online", "on|off [ADDRESS|all]", "says whether this system is on line, or asks others to go on line",
       "Only the system in control may ask others.", member(&Host_Commands::SwitchOnline)},
      {"record", "on|off", "tells the others whether this system records", "",
       withSwitch([this](bool isOn) { mSession->SetRecording(isOn); })},
      {"group", "1|2|3|4|all on|off", "enables a group on all systems", "Only the system in control may do it.",
       member(&Host_Commands::Group)},
      {"video", "FORMAT|none", "tells the others the video reference that this system gets",
       "FORMAT is one like PAL, NTSC, 1080i_50 or 1080p_25.", member(&Host_Commands::Video)},
      {"dialog", "TEXT", "tells the others that a dialog is on the screen here", "Anybody can close it: ok, cancel.",
       [this](Host_Arguments& arguments) {
         mSession->SetDialog(arguments.TakeText("the text"));
         return Answer{};
       }},
      {"ok", "", "presses OK in the dialog on screen, wherever it is", "", plain([this] {
         mSession.Expect(mSession->PressButton(true));
         return Answer{};
       })},
      {"cancel", "", "presses Cancel in the dialog on screen, wherever it is", "", plain([this] {
         mSession.Expect(mSession->PressButton(false));
         return Answer{};
       })},
      {"disconnect", "ADDRESS", "ends the connection with a system",
       "A satellite that leaves its master stays away until it is started anew; one that the master sends away may\n"
       "come back by itself.",
       member(&Host_Commands::Disconnect)},
      {"wait", "TIME|linked [N]|locked|primed|played|control [for TIME]", "waits; scripts need no sleep of their own",
       "linked N  until N other systems are linked with this one; without a number, 1\n"
       "locked    until the clocks are locked: this satellite's, on the master those of all satellites\n"
       "primed    until this system and those linked with it are primed\n"
       "played    until the last start is over and, on the master, all have reported it\n"
       "control   until this system is in control\n"
       "Gives up after 30 s, or after the time that follows for.",
       [this](Host_Arguments& arguments) { return mWaiting.Wait(arguments); }},
      {"quit", "", "leaves the link and ends", "The end of the input and Ctrl-C do the same.", plain([this] {
         mHasQuit = true;
         return Answer{};
       })},
      {"clock-errors", "EPOCH", "", "", [this](Host_Arguments& arguments) { return ClockErrors(arguments); }},
  };
}

Host_Commands::Answer Host_Commands::Prime(Host_Arguments& arguments) {
  const Trel_PlayRange range = arguments.IsEmpty() ? mSession->GetSharedSettings().selection : TakeRange(arguments);
  arguments.ExpectEnd();
  mSession.Expect(mSession->Prime(range));
  mWaiting.UntilPrimed();
  return {};
}

Host_Commands::Answer Host_Commands::Start(Host_Arguments& arguments) {
  Trel_StartRequest request;
  if (arguments.Skip("in")) {
    request.when = Trel_StartRequest::When::in;
    request.time = arguments.TakeTime("the time");
  }
  request.withoutUnready = !arguments.Skip("ready");
  arguments.ExpectEnd();
  const Trel_StartAnswer answer = mSession->StartPlayback(request);
  std::string text;
  nlohmann::json notReady = nlohmann::json::array();
  for (const auto& [address, reason] : answer.unready) {
    notReady.push_back(Sys_Socket::DecodeIPAddress(address));
    text += (text.empty() ? "Not ready: " : "; ") + mSession.NameOf(address) + ", " + WhyUnready(reason);
  }
  if (answer.refusal == Trel_LinkRefusal::othersNotReady) {
    throw Host_Error(text + ". Without ready the others start");
  }
  mSession.Expect(answer.refusal);
  mWaiting.ExpectStart(answer.runningTime);
  return {.text = text, .fields = {{"running_time", answer.runningTime}, {"not_ready", notReady}}};
}

Host_Commands::Answer Host_Commands::Solo(Host_Arguments& arguments) {
  const bool isOn = arguments.TakeSwitch();
  const bool isAll = arguments.Skip("all");
  arguments.ExpectEnd();
  if (isAll) {
    mSession.Expect(mSession->SoloAll(isOn));
  } else {
    mSession->SetSoloed(isOn);
  }
  return {};
}

Host_Commands::Answer Host_Commands::AskForControl() {
  switch (mSession->RequestControl()) {
  case Trel_LinkSession::ControlAnswer::granted:
    return {.text = "this system is in control"};
  case Trel_LinkSession::ControlAnswer::busy:
    throw Host_Error("the system in control does not let go, or another one is asking too; try again in a moment");
  case Trel_LinkSession::ControlAnswer::noLink:
    mSession.Expect(Trel_LinkRefusal::notLinked);
  }
  return {};
}

Host_Commands::Answer Host_Commands::SetName(Host_Arguments& arguments) {
  const std::string name = arguments.TakeText("the name");
  if (name.size() >= TCPE_System::kSystemNameSize) {
    throw Host_UsageError("a name has at most " + std::to_string(TCPE_System::kSystemNameSize - 1) + " characters");
  }
  mSession->SetSystemName(name.c_str());
  return {};
}

Host_Commands::Answer Host_Commands::SetOrder(Host_Arguments& arguments) {
  const std::uint32_t address = arguments.TakeAddress();
  const auto place = static_cast<std::int32_t>(arguments.TakeNumber("the place"));
  arguments.ExpectEnd();
  if (!mSession.IsMaster()) {
    throw Host_Error("only the master orders the systems; type this at the master");
  }
  if (!mSession->SetOrderNumber(address, place)) {
    throw Host_Error("no system of the link has this address, or there is no such place; see systems");
  }
  return {};
}

Host_Commands::Answer Host_Commands::SwitchLink(Host_Arguments& arguments) {
  const bool isOn = arguments.TakeSwitch();
  if (arguments.IsEmpty()) {
    mSession->SetTakingPart(isOn);
    return {};
  }
  const std::uint32_t whom = TakeWhom(arguments);
  arguments.ExpectEnd();
  mSession.Expect(mSession->RequestTakingPart(isOn, whom));
  return {};
}

Host_Commands::Answer Host_Commands::SwitchOnline(Host_Arguments& arguments) {
  const bool isOn = arguments.TakeSwitch();
  if (arguments.IsEmpty()) {
    mSession->SetOnline(isOn);
    return {};
  }
  const std::uint32_t whom = TakeWhom(arguments);
  arguments.ExpectEnd();
  mSession.Expect(mSession->RequestOnline(isOn, whom));
  return {};
}

Host_Commands::Answer Host_Commands::Group(Host_Arguments& arguments) {
  ETrel_Group group = eTrel_Group_All;
  if (!arguments.Skip("all")) {
    const std::int64_t number = arguments.TakeNumber("the group");
    if (number < eTrel_Group_1 || number > eTrel_Group_4) {
      throw Host_UsageError("there are the groups 1, 2, 3 and 4");
    }
    group = static_cast<ETrel_Group>(number);
  }
  const bool isOn = arguments.TakeSwitch();
  arguments.ExpectEnd();
  mSession.Expect(mSession->EnableGroup(group, isOn));
  return {};
}

Host_Commands::Answer Host_Commands::Video(Host_Arguments& arguments) {
  const std::string name = arguments.TakeWord("the format");
  arguments.ExpectEnd();
  const auto last = static_cast<std::int32_t>(eTrel_VideoReferenceFormat_1080p_60);
  std::string names = "none";
  for (std::int32_t value = 0; value <= last; ++value) {
    const auto format = static_cast<ETrel_VideoReferenceFormat>(value);
    if (name == VideoReferenceText(format)) {
      mSession->SetVideoReference(format);
      return {};
    }
    names += value == 0 ? "" : std::string(", ") + VideoReferenceText(format);
  }
  throw Host_UsageError("there is no format \"" + name + "\"; the formats are " + names);
}

Host_Commands::Answer Host_Commands::Disconnect(Host_Arguments& arguments) {
  const std::uint32_t address = arguments.TakeAddress();
  arguments.ExpectEnd();
  if (!mSession->DisconnectSystem(address)) {
    throw Host_Error(Sys_Socket::DecodeIPAddress(address) + " is not linked with this system; see systems");
  }
  return {};
}

Host_Commands::Answer Host_Commands::ClockErrors(Host_Arguments& arguments) const {
  const std::int64_t epoch = arguments.TakeNumber("the raw time of the master's running time 0");
  arguments.ExpectEnd();
  const auto figures = mSampler != nullptr ? mSampler->GetFigures(epoch) : std::nullopt;
  if (!figures) {
    throw Host_Error(mSampler != nullptr ? "the clock of this system has not been locked to the master's yet"
                                         : "the errors of this system's clock are not measured");
  }
  return {.fields = {{"clock_error", FieldsOf(figures->error)}, {"error_bound", FieldsOf(figures->errorBound)}}};
}
