#include "Host_Node.h"

#include "ExitStatus.h"
#include "Host_Arguments.h"
#include "Host_Error.h"
#include "Host_Events.h"
#include "Host_Status.h"
#include "Host_UsageError.h"
#include "Status_Server.h"
#include "Texts.h"
#include "Watch_Text.h"

#include <trel/Sys_Clock.h>
#include <trel/Sys_Socket.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_CorrelatedClockMgr.h>
#include <trel/Trel_Messenger.h>

#include <algorithm>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kIdlePeriod{100};
constexpr milliseconds kWaitPeriod{20};
constexpr std::int64_t kWaitTimeOut = 30'000'000; // microseconds

std::string DefaultName() {
  std::string name = Sys_Socket::GetHostName();
  name.resize(std::min(name.size(), TCPE_System::kSystemNameSize - 1));
  return name.empty() ? "trel host" : name;
}

Host_State::Selection TakeRange(Host_Arguments& arguments) {
  const std::int64_t in = arguments.TakeTime("the in point");
  const std::int64_t out = arguments.TakeTime("the out point");
  if (out < in) {
    throw Host_UsageError("the out point is before the in point");
  }
  return {.in = in, .out = out};
}

std::string OnOff(bool on) { return on ? "on" : "off"; }

} // namespace

Host_Node::Host_Node(const Host_Options& options, Host_Events& events)
    : mOptions(options), mEvents(events), mClock(options.isMaster),
      mLink(
          options, events, [this](std::uint32_t address, bool isLinked) { OnLinked(address, isLinked); },
          [this](std::uint32_t address) { mMirror.Forget(address); }),
      mMirror(mLink, mState, mClock, mSender, events), mTransport(mLink, mState, mClock, mMirror, events),
      mConsole(Commands(), events) {}

int Host_Node::Run() {
  mMirror.SetHandlers();
  mTransport.SetHandlers();
  if (!StartEngine()) {
    return kExitFailure;
  }
  int exitStatus = kExitSuccess;
  {
    const Status_Server statusServer([this] { return Host_Status(mLink, mState, mClock, mTransport); });
    const std::jthread idle([this](const std::stop_token& stop) { Idle(stop); });
    exitStatus = Converse();
  }
  LeaveLink();
  if (mCapture && !mCapture->IsComplete()) {
    mEvents.Tell({.kind = "error", .text = "cannot write all of " + mOptions.captureFile});
    exitStatus = exitStatus == kExitSuccess ? kExitFailure : exitStatus;
  }
  mEvents.Tell({.kind = "ended", .text = "ended", .isDetail = true});
  return exitStatus;
}

bool Host_Node::StartEngine() {
  const std::string name = mOptions.name.empty() ? DefaultName() : mOptions.name;
  Trel_CommManager::SetSystemName(name.c_str());
  if (!mOptions.captureFile.empty()) {
    try {
      mCapture.emplace(mOptions.captureFile).CaptureEngine();
    } catch (const std::runtime_error& error) {
      mEvents.Tell({.kind = "error", .text = error.what()});
      return false;
    }
  }
  if (mOptions.identifier != 0) {
    Trel_CommManager::SetUniqueID(mOptions.identifier);
  }
  const std::string failure = mOptions.engine.Start(&Trel_LinkSession::OnNetworkError);
  if (!failure.empty()) {
    mEvents.Tell({.kind = "error", .text = failure});
    return false;
  }
  std::string notice = Trel_CommManager::GetInitializationReport();
  constexpr std::uint32_t kLoopback = 127; // first byte of its addresses
  if (!notice.empty()) {
    notice += "; choose one with --address";
  } else if (mOptions.engine.address == 0 && Host_Link::OwnAddress() >> 24U == kLoopback) {
    notice = "no network adaptor is up, so only systems on this machine can be reached: plug in a network cable";
  }
  const std::string address = Sys_Socket::DecodeIPAddress(Host_Link::OwnAddress());
  const char* const role = RoleText(mOptions.isMaster ? eTCPE_SystemType_Master : eTCPE_SystemType_Satellite);
  mEvents.Tell({.kind = "ready",
                .text = Printable(name) + ", " + role + " at " + address + " port " +
                        std::to_string(Trel_CommManager::GetCommunicationPort()) +
                        (notice.empty() ? "" : "\n" + notice) +
                        (Host_Input::IsTerminal() ? "\nType help for the commands." : ""),
                .fields = {{"role", role},
                           {"name", name},
                           {"address", address},
                           {"port", Trel_CommManager::GetCommunicationPort()},
                           {"discovery_port", Trel_CommManager::GetDiscoveryPort()},
                           {"numbering", Trel_CommManager::GetSupportsMarlo11() ? "current" : "legacy"},
                           {"notice", notice}}});
  mLink.Start();
  return true;
}

int Host_Node::Converse() {
  bool hasFailed = false;
  while (!mHasQuit) {
    if (Host_Input::HasPrompt() && !mOptions.json) {
      mEvents.Tell({.kind = "prompt"});
    }
    std::string line;
    const Host_Input::Outcome outcome = mInput.ReadLine(&line);
    if (outcome == Host_Input::Outcome::end || outcome == Host_Input::Outcome::signalled) {
      break;
    }
    if (outcome == Host_Input::Outcome::lineTooLong) {
      mEvents.Tell({.kind = "error", .text = "a line is too long and was left out", .isAnswer = true});
    }
    const bool isDone = outcome == Host_Input::Outcome::line && mConsole.Execute(line);
    hasFailed = hasFailed || !isDone;
  }
  if (mInput.Signal() != 0) {
    return kExitSignalled + mInput.Signal();
  }
  // Somebody who types has seen what failed; a script has not.
  return hasFailed && !Host_Input::IsTerminal() ? kExitFailure : kExitSuccess;
}

void Host_Node::Idle(const std::stop_token& stop) {
  std::mutex mutex;
  std::condition_variable_any never;
  while (!stop.stop_requested()) {
    Trel_CommManager::DoIdle();
    const std::set<std::uint32_t> linked = mLink.Linked();
    mClock.Tick(linked);
    if (!mOptions.recording.empty()) {
      TellRoundTrips(linked);
    }
    mMirror.Tick();
    mTransport.Tick();
    std::unique_lock lock(mutex);
    never.wait_for(lock, stop, mClock.UntilDue(kIdlePeriod), [] { return false; });
  }
}

void Host_Node::TellRoundTrips(const std::set<std::uint32_t>& linked) {
  for (const auto& [address, roundTrip] : mClock.TakeRoundTrips(linked)) {
    mEvents.Tell({.kind = "round_trip",
                  .fields = {{"address", Sys_Socket::DecodeIPAddress(address)}, {"round_trip_us", roundTrip}},
                  .isSample = true});
  }
}

void Host_Node::LeaveLink() {
  if (mLink.Session().IsLinked()) {
    mLink.Stop(); // tells the others
    Trel_CommManager::Terminate();
  } else {
    Trel_CommManager::Terminate(); // ends an attempt to connect
    mLink.Stop();
  }
}

void Host_Node::OnLinked(std::uint32_t address, bool isLinked) {
  if (isLinked) {
    mMirror.Greet(address);
  } else {
    mMirror.ForgetUnlessConnected(address);
  }
}

std::vector<Host_Console::Command> Host_Node::Commands() {
  // Commands without arguments, and those with an on or off alone.
  const auto plain = [](auto action) {
    return [action](Host_Arguments& arguments) {
      arguments.ExpectEnd();
      return action();
    };
  };
  const auto withSwitch = [](auto action) {
    return [action](Host_Arguments& arguments) {
      const bool on = arguments.TakeSwitch();
      arguments.ExpectEnd();
      action(on);
      return Answer{};
    };
  };
  const auto member = [this](Answer (Host_Node::*function)(Host_Arguments&)) {
    return [this, function](Host_Arguments& arguments) { return (this->*function)(arguments); };
  };
  return {
      {"systems", "", "lists the linked systems", "", plain([this] { return ListSystems(); })},
      {"state", "", "shows role, name, address, who is in control, clock and transport of this system", "",
       plain([this] { return ShowState(); })},
      {"prime", "[IN OUT]", "gets all systems ready to play the selection, or another range",
       "IN and OUT are positions on the timeline, as times. Only the system in control may do it.",
       member(&Host_Node::Prime)},
      {"start", "in TIME", "starts all systems together, so long from now",
       "All must be primed and their clocks locked. Give the message time to arrive everywhere: start in 500ms.\n"
       "Only the system in control may do it. The master then tells how far apart the systems really started.",
       member(&Host_Node::Start)},
      {"stop", "", "stops all systems", "Only the system in control may do it.", plain([this] {
         mTransport.Stop();
         return Answer{};
       })},
      {"solo", "on|off [all]", "tells the others whether a track is soloed here; all: on all systems",
       "With all it is a command to all systems, and only the system in control may give it.",
       [this](Host_Arguments& arguments) {
         const bool on = arguments.TakeSwitch();
         const bool isAll = arguments.Skip("all");
         arguments.ExpectEnd();
         if (isAll) {
           mMirror.SoloAll(on);
         } else {
           mMirror.SetSolo(on);
         }
         return Answer{};
       }},
      {"loop", "on|off", "has all systems play in a loop, or not", "Only the system in control may do it.",
       withSwitch([this](bool on) { mMirror.SetLoopPlay(on); })},
      {"select", "IN OUT", "sets the selection on all systems",
       "IN and OUT are positions on the timeline, as times. Only the system in control may do it.",
       [this](Host_Arguments& arguments) {
         const Host_State::Selection selection = TakeRange(arguments);
         arguments.ExpectEnd();
         mMirror.SetSelection(selection);
         return Answer{};
       }},
      {"control", "", "asks for control: only the system in control can command the others (prime, start, stop, ...)",
       "The system that has control lets go, unless somebody else is asking for it at the same time.",
       plain([this] { return AskForControl(); })},
      {"name", "NAME", "gives this system another name", "At most 29 characters.", member(&Host_Node::SetName)},
      {"order", "ADDRESS N", "puts a system at a place of the list (master)",
       "The system that has the place gets the one that becomes free.", member(&Host_Node::SetOrder)},
      {"link", "on|off [ADDRESS|all]", "whether this system, or others, play when the rest does",
       "A system that is off stays connected, but does not prime or start. Only the system in control, or the master,\n"
       "may ask others.",
       member(&Host_Node::SwitchLink)},
      {"online", "on|off [ADDRESS|all]", "says whether this system is on line, or asks others to go on line",
       "Only the system in control may ask others.", member(&Host_Node::SwitchOnline)},
      {"record", "on|off", "tells the others whether this system records", "",
       withSwitch([this](bool on) { mMirror.SetRecording(on); })},
      {"group", "1|2|3|4|all on|off", "enables a group on all systems", "Only the system in control may do it.",
       member(&Host_Node::Group)},
      {"video", "FORMAT|none", "tells the others the video reference that this system gets",
       "FORMAT is one like PAL, NTSC, 1080i_50 or 1080p_25.", member(&Host_Node::Video)},
      {"dialog", "TEXT", "tells the others that a dialog is on the screen here", "Anybody can close it: ok, cancel.",
       [this](Host_Arguments& arguments) {
         mMirror.ShowDialog(arguments.TakeText("the text"));
         return Answer{};
       }},
      {"ok", "", "presses OK in the dialog on screen, wherever it is", "", plain([this] {
         mMirror.PressButton(true);
         return Answer{};
       })},
      {"cancel", "", "presses Cancel in the dialog on screen, wherever it is", "", plain([this] {
         mMirror.PressButton(false);
         return Answer{};
       })},
      {"disconnect", "ADDRESS", "ends the connection with a system",
       "A satellite that leaves its master stays away until it is started anew; one that the master sends away may\n"
       "come back by itself.",
       member(&Host_Node::Disconnect)},
      {"wait", "TIME|linked [N]|locked|primed|played|control [for TIME]", "waits; scripts need no sleep of their own",
       "linked N  until N other systems are linked with this one; without a number, 1\n"
       "locked    until the clocks are locked: this satellite's, on the master those of all satellites\n"
       "primed    until this system and those linked with it are primed\n"
       "played    until the last start is over and, on the master, all have reported it\n"
       "control   until this system is in control\n"
       "Gives up after 30 s, or after the time that follows for.",
       member(&Host_Node::Wait)},
      {"quit", "", "leaves the link and ends", "The end of the input and Ctrl-C do the same.", plain([this] {
         mHasQuit = true;
         return Answer{};
       })},
  };
}

Host_Node::Answer Host_Node::ListSystems() const {
  std::ostringstream text;
  nlohmann::json list = nlohmann::json::array();
  const auto others = mState.GetOthers();
  const std::uint32_t inControl = mLink.Session().GetSystemInControl();
  const auto row = [&text](const std::string& place, const std::string& address, const std::string& name,
                           const std::string& role, const std::string& transport, const std::string& clock,
                           const std::string& link) {
    text << Watch_Text::Fit(place, 5) << "  " << Watch_Text::Fit(address, 15) << "  " << Watch_Text::Fit(name, 29)
         << "  " << Watch_Text::Fit(role, 9) << "  " << Watch_Text::Fit(transport, 13) << "  "
         << Watch_Text::Fit(clock, 6) << "  " << link;
  };
  row("place", "address", "name", "role", "transport", "clock", "link");
  for (const Trel_System& system : mLink.Session().GetSystems()) {
    const std::uint32_t address = system.GetIPAddress();
    const bool isOwn = address == Host_Link::OwnAddress();
    const auto other = others.find(address);
    const bool isKnown = isOwn || other != others.end();
    const Host_State::System known = isOwn ? mState.GetOwn() : isKnown ? other->second : Host_State::System{};
    const bool isLocked = known.isClockLocked || system.GetSystemType() == eTCPE_SystemType_Master;
    nlohmann::json entry = {{"address", Sys_Socket::DecodeIPAddress(address)},
                            {"name", system.GetSystemName()},
                            {"host", system.GetHostName()},
                            {"role", RoleText(system.GetSystemType())},
                            {"place", system.GetOrderNumber()},
                            {"this_system", isOwn},
                            {"in_control", address == inControl}};
    if (isKnown) {
      // Satellites of a star know this of themselves and the master only.
      entry["transport"] = TransportText(known.transport);
      entry["clock_locked"] = isLocked;
      entry["link"] = LinkStateText(known.link);
      entry["online"] = known.isOnline;
      entry["recording"] = known.isRecording;
      entry["solo"] = known.isSoloed;
      entry["video_reference"] = VideoReferenceText(known.videoReference);
    }
    list.push_back(entry);
    const std::int32_t place = system.GetOrderNumber();
    text << '\n';
    row(place != 0 ? std::to_string(place) : "-", Sys_Socket::DecodeIPAddress(address),
        Printable(system.GetSystemName()), RoleText(system.GetSystemType()),
        isKnown ? TransportText(known.transport) : "-", isKnown ? (isLocked ? "locked" : "free") : "-",
        std::string(isKnown ? LinkStateText(known.link) : "-") + (isOwn ? ", this system" : "") +
            (address == inControl ? ", in control" : ""));
  }
  return {.text = text.str(), .fields = {{"systems", list}}};
}

Host_Node::Answer Host_Node::ShowState() const {
  const Host_State::System own = mState.GetOwn();
  const Host_State::Shared shared = mState.GetShared();
  const std::uint32_t inControl = mLink.Session().GetSystemInControl();
  const bool isLocked = mClock.IsLocked();
  const auto runningTime = mClock.RunningTime(Sys_Clock::Microseconds());
  const auto linked = mLink.Linked();
  nlohmann::json addresses = nlohmann::json::array();
  for (const std::uint32_t address : linked) {
    addresses.push_back(Sys_Socket::DecodeIPAddress(address));
  }
  const std::string role = RoleText(mOptions.isMaster ? eTCPE_SystemType_Master : eTCPE_SystemType_Satellite);
  const std::string name = Trel_CommManager::GetSystemName();
  const std::string address = Sys_Socket::DecodeIPAddress(Host_Link::OwnAddress());
  std::ostringstream text;
  text << "this system      " << Printable(name) << ", " << role << ", " << address << '\n'
       << "in control       "
       << (mLink.HasControl() ? "this system"
           : inControl != 0   ? mLink.NameOf(inControl)
                              : "nobody")
       << '\n'
       << "linked with      " << linked.size() << (linked.size() == 1 ? " system" : " systems") << '\n'
       << "clock            "
       << (mOptions.isMaster ? "the master's own"
           : isLocked        ? "locked to the master's"
                             : "not locked to the master's")
       << '\n'
       << "transport        " << TransportText(own.transport) << (shared.loopPlay ? ", in a loop" : "") << '\n'
       << "link             " << LinkStateText(own.link) << '\n'
       << "solo " << OnOff(own.isSoloed) << ", record " << OnOff(own.isRecording) << ", online " << OnOff(own.isOnline)
       << ", video reference " << VideoReferenceText(own.videoReference)
       << (own.dialog.empty() ? "" : ", dialog on screen: " + Printable(own.dialog));
  return {.text = text.str(),
          .fields = {{"role", role},
                     {"name", name},
                     {"address", address},
                     {"has_control", mLink.HasControl()},
                     {"in_control", inControl != 0 ? nlohmann::json(Sys_Socket::DecodeIPAddress(inControl)) : nullptr},
                     {"linked", addresses},
                     {"clock_locked", isLocked},
                     {"running_time", runningTime ? nlohmann::json(*runningTime) : nullptr},
                     {"transport", TransportText(own.transport)},
                     {"link", LinkStateText(own.link)},
                     {"loop", shared.loopPlay},
                     {"selection", {{"in_us", shared.selection.in}, {"out_us", shared.selection.out}}},
                     {"groups", shared.groups},
                     {"solo", own.isSoloed},
                     {"recording", own.isRecording},
                     {"online", own.isOnline},
                     {"video_reference", VideoReferenceText(own.videoReference)},
                     {"dialog", own.dialog}}};
}

Host_Node::Answer Host_Node::Prime(Host_Arguments& arguments) {
  Host_State::Selection range = mState.GetShared().selection;
  if (!arguments.IsEmpty()) {
    range = TakeRange(arguments);
  }
  arguments.ExpectEnd();
  mTransport.Prime(range);
  return {};
}

Host_Node::Answer Host_Node::Start(Host_Arguments& arguments) {
  if (!arguments.Skip("in")) {
    throw Host_UsageError("when is missing");
  }
  const std::int64_t in = arguments.TakeTime("the time");
  arguments.ExpectEnd();
  std::string text;
  nlohmann::json notReady = nlohmann::json::array();
  for (const auto& [address, system] : mState.GetOthers()) {
    const bool isSatellite = mOptions.isMaster; // the master knows them all
    if (isSatellite && system.link >= eTrel_LinkState_LinkedNotPlayable &&
        (!system.isClockLocked || system.transport != eTrel_State_PrimeCompleted)) {
      notReady.push_back(Sys_Socket::DecodeIPAddress(address));
      text += (text.empty() ? "Not ready: " : ", ") + mLink.NameOf(address) +
              (system.isClockLocked ? ", not primed" : ", clock not locked");
    }
  }
  mStartsAwaited = mTransport.StartsDone();
  const std::int64_t runningTime = mTransport.Start(in);
  return {.text = text, .fields = {{"running_time", runningTime}, {"not_ready", notReady}}};
}

Host_Node::Answer Host_Node::AskForControl() {
  switch (mLink.Session().RequestControl()) {
  case Trel_LinkSession::ControlAnswer::granted:
    return {.text = "this system is in control"};
  case Trel_LinkSession::ControlAnswer::busy:
    throw Host_Error("the system in control does not let go, or another one is asking too; try again in a moment");
  case Trel_LinkSession::ControlAnswer::noLink:
    break;
  }
  throw Host_Error("this system is not linked with a master yet; wait for it with: wait linked 1");
}

Host_Node::Answer Host_Node::SetName(Host_Arguments& arguments) {
  const std::string name = arguments.TakeText("the name");
  if (name.size() >= TCPE_System::kSystemNameSize) {
    throw Host_UsageError("a name has at most " + std::to_string(TCPE_System::kSystemNameSize - 1) + " characters");
  }
  mLink.Session().SetSystemName(name.c_str());
  return {};
}

Host_Node::Answer Host_Node::SetOrder(Host_Arguments& arguments) {
  const std::uint32_t address = arguments.TakeAddress();
  const std::int32_t place = arguments.TakeNumber("the place");
  arguments.ExpectEnd();
  if (!mOptions.isMaster) {
    throw Host_Error("only the master orders the systems; type this at the master");
  }
  if (!mLink.Session().SetOrderNumber(address, place)) {
    throw Host_Error("no system of the link has this address, or there is no such place; see systems");
  }
  return {};
}

std::set<std::uint32_t> Host_Node::TakeOthers(Host_Arguments& arguments) const {
  std::set<std::uint32_t> linked = mLink.Linked();
  if (arguments.Skip("all")) {
    return linked;
  }
  const std::uint32_t address = arguments.TakeAddress();
  if (!linked.contains(address)) {
    throw Host_Error(Sys_Socket::DecodeIPAddress(address) + " is not linked with this system; see systems");
  }
  return {address};
}

Host_Node::Answer Host_Node::SwitchLink(Host_Arguments& arguments) {
  const bool on = arguments.TakeSwitch();
  if (arguments.IsEmpty()) {
    mMirror.SetTakingPart(on);
    return {};
  }
  const auto others = TakeOthers(arguments);
  arguments.ExpectEnd();
  if (!mOptions.isMaster) {
    mLink.ExpectControl();
  }
  for (const std::uint32_t address : others) {
    mMirror.RequestTakingPart(on, address);
  }
  return {};
}

Host_Node::Answer Host_Node::SwitchOnline(Host_Arguments& arguments) {
  const bool on = arguments.TakeSwitch();
  if (arguments.IsEmpty()) {
    mMirror.SetOnline(on);
    return {};
  }
  const auto others = TakeOthers(arguments);
  arguments.ExpectEnd();
  mLink.ExpectControl();
  for (const std::uint32_t address : others) {
    mMirror.RequestOnline(on, address);
  }
  return {};
}

Host_Node::Answer Host_Node::Group(Host_Arguments& arguments) {
  ETrel_Group group = eTrel_Group_All;
  if (!arguments.Skip("all")) {
    const std::int32_t number = arguments.TakeNumber("the group");
    if (number < eTrel_Group_1 || number > eTrel_Group_4) {
      throw Host_UsageError("there are the groups 1, 2, 3 and 4");
    }
    group = static_cast<ETrel_Group>(number);
  }
  const bool on = arguments.TakeSwitch();
  arguments.ExpectEnd();
  mMirror.EnableGroup(group, on);
  return {};
}

Host_Node::Answer Host_Node::Video(Host_Arguments& arguments) {
  const std::string name = arguments.TakeWord("the format");
  arguments.ExpectEnd();
  const auto last = static_cast<std::int32_t>(eTrel_VideoReferenceFormat_1080p_60);
  std::string names = "none";
  for (std::int32_t value = 0; value <= last; ++value) {
    const auto format = static_cast<ETrel_VideoReferenceFormat>(value);
    if (name == VideoReferenceText(format)) {
      mMirror.SetVideoReference(format);
      return {};
    }
    names += value == 0 ? "" : std::string(", ") + VideoReferenceText(format);
  }
  throw Host_UsageError("there is no format \"" + name + "\"; the formats are " + names);
}

Host_Node::Answer Host_Node::Disconnect(Host_Arguments& arguments) {
  const std::uint32_t address = arguments.TakeAddress();
  arguments.ExpectEnd();
  if (!mLink.Session().DisconnectSystem(address)) {
    throw Host_Error(Sys_Socket::DecodeIPAddress(address) + " is not linked with this system; see systems");
  }
  return {};
}

Host_Node::Answer Host_Node::Wait(Host_Arguments& arguments) {
  std::int32_t count = 1;
  std::int64_t time = 0;
  const bool isLinked = arguments.Skip("linked");
  const bool isLocked = arguments.Skip("locked");
  const bool isPrimed = arguments.Skip("primed");
  const bool isPlayed = arguments.Skip("played");
  const bool isControl = arguments.Skip("control");
  const bool isTime = !isLinked && !isLocked && !isPrimed && !isPlayed && !isControl;
  if (isLinked && !arguments.IsEmpty() && !arguments.IsNext("for")) {
    count = arguments.TakeNumber("how many systems");
    if (count < 0) {
      throw Host_UsageError("there cannot be fewer than no systems");
    }
  } else if (isTime) {
    time = arguments.TakeTime("what to wait for");
  }
  const std::int64_t timeOut = arguments.Skip("for") ? arguments.TakeTime("the time") : kWaitTimeOut;
  arguments.ExpectEnd();

  const auto linkedWhich = [this](auto holds) {
    const auto linked = mLink.Linked();
    const auto others = mState.GetOthers();
    return std::all_of(linked.begin(), linked.end(), [&](std::uint32_t address) {
      const auto other = others.find(address);
      return other != others.end() && (other->second.link < eTrel_LinkState_LinkedNotPlayable || holds(other->second));
    });
  };
  if (isTime) {
    const std::int64_t end = Sys_Clock::RawMicroseconds() + time;
    while (Sys_Clock::RawMicroseconds() < end && mInput.Pause(std::min(kWaitPeriod, milliseconds(time / 1000 + 1)))) {
    }
  } else if (isLinked) {
    WaitUntil("fewer systems than " + std::to_string(count) + " are linked with this one", timeOut,
              [&] { return mLink.Linked().size() >= static_cast<std::size_t>(count); });
  } else if (isLocked) {
    WaitUntil("not all clocks are locked", timeOut, [&] {
      return mClock.IsLocked() &&
             (!mOptions.isMaster || linkedWhich([](const Host_State::System& other) { return other.isClockLocked; }));
    });
  } else if (isPrimed) {
    WaitUntil("not all systems are primed", timeOut, [&] {
      return mState.GetOwn().transport == eTrel_State_PrimeCompleted &&
             linkedWhich([](const Host_State::System& other) { return other.transport == eTrel_State_PrimeCompleted; });
    });
  } else if (isPlayed) {
    WaitUntil("nothing has been played", timeOut, [&] { return mTransport.StartsDone() > mStartsAwaited; });
  } else {
    WaitUntil("this system is not in control", timeOut, [&] { return mLink.HasControl(); });
  }
  return {};
}

void Host_Node::WaitUntil(const std::string& what, std::int64_t timeOut, const std::function<bool()>& condition) {
  const std::int64_t end = Sys_Clock::RawMicroseconds() + timeOut;
  while (!condition()) {
    if (Sys_Clock::RawMicroseconds() > end) {
      constexpr double kMicrosecondsOfSecond = 1e6;
      std::ostringstream text;
      text << what << " after " << static_cast<double>(timeOut) / kMicrosecondsOfSecond << " s";
      throw Host_Error(text.str());
    }
    if (!mInput.Pause(kWaitPeriod)) {
      throw Host_Error("ended by a signal");
    }
  }
}
