#include "link/host/Trel_LinkTexts.h"

#include <trel/Cmn_Printable.h>
#include <trel/Sys_Socket.h>
#include <trel/TCPE_ErrorText.h>

#include <algorithm>
#include <array>
#include <cstdio>

namespace {

std::string Seconds(std::int64_t microseconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", static_cast<double>(microseconds) / 1e6);
  return text;
}

/// What to do about a system that refused this one, or a connection that is gone.
const char* AdviceFor(ETCPE_NetworkError error) {
  switch (error) {
  case eNetworkError_ConnectionLost:
    return " Check that it is running, and the cable.";
  case eNetworkError_MalformedData:
    return " Check that only link software uses this port.";
  case eNetworkError_NotAllowed:
    return " Allow it there.";
  case eNetworkError_Full:
    return " Unlink a system, or allow more there.";
  case eNetworkError_OtherNumbering:
    return " Set \"SupportsMarlo11\" alike on both.";
  case eNetworkError_Authentication:
    return " Give both systems the same shared secret.";
  case eNetworkError_DuplicateAddress:
    return " Give one of the two that have this system's address another one.";
  case eNetworkError_PeerTooSlow:
    return " Check whether it is overloaded.";
  case eNetworkError_Flood:
    return " Find out what runs there; it may not be the only one.";
  case eNetworkError_None:
    break;
  }
  return "";
}

std::string NetworkError(ETCPE_NetworkError error, const std::string& who) {
  return error == eNetworkError_None ? "The connection to " + who + " has ended."
                                     : who + ": " + TCPE_ErrorText(error) + '.' + AdviceFor(error);
}

constexpr const char* kNoAddress =
    "This system has no network address any more, so it reaches nobody. Plug in the cable, "
    "turn the adaptor on, or give it its address again.";

std::string Count(std::int64_t count, const char* what) {
  return std::to_string(count) + ' ' + what + (count == 1 ? "" : "s");
}

std::string Others(const Trel_LinkEvent& event) {
  std::string text;
  for (const Trel_LinkEvent::System& other : event.others) {
    const std::string address = Sys_Socket::DecodeIPAddress(other.address);
    text += (text.empty() ? "" : ", ") + (other.name.empty() ? address : other.name + " at " + address) +
            (other.isAvailable ? "" : " (not available)");
  }
  return text;
}

constexpr std::int64_t kNoticeablyLate = 5000; // microseconds

std::string Milliseconds(std::int64_t microseconds) { return std::to_string(microseconds / 1000) + " ms"; }

std::string Lateness(std::int64_t late) {
  return late < 0 ? std::to_string(-late) + " us early" : std::to_string(late) + " us late";
}

/// A position of the timeline.
std::string Position(std::int64_t microseconds) {
  char text[40];
  std::snprintf(text, sizeof text, "%g s", static_cast<double>(microseconds) / 1e6);
  return text;
}

/// A system in a line about something else.
std::string Listed(const Trel_LinkEvent::System& system) {
  const std::string address = Sys_Socket::DecodeIPAddress(system.address);
  return system.name.empty() ? address : Cmn_Printable(system.name) + " (" + address + ')';
}

std::string Groups(const std::array<bool, Trel_SharedSettings::kGroups>& groups) {
  std::string text;
  for (std::size_t group = 0; group < groups.size(); ++group) {
    text += groups.at(group) ? ' ' + std::to_string(group + 1) : "";
  }
  return text.empty() ? " none" : text;
}

const char* Transport(ETrel_State state) {
  static constexpr std::array kNames = {"stopping",      "stopped",      "priming", "primed",
                                        "syncing clock", "clock synced", "playing", "winding"};
  const auto index = static_cast<std::size_t>(state);
  return index < kNames.size() ? kNames.at(index) : "unknown";
}

const char* VideoReference(ETrel_VideoReferenceFormat format) {
  const auto names = Trel_DisplayStrings(format);
  const auto index = static_cast<std::size_t>(format);
  const bool isFormat = format > eTrel_VideoReferenceFormat_Undefined && index < names.size();
  return isFormat && names[index] != nullptr ? names[index] : "none";
}

} // namespace

std::string Trel_LinkTexts::Name(const Trel_LinkEvent::System& system) {
  const std::string address = Sys_Socket::DecodeIPAddress(system.address);
  return system.name.empty() ? address : system.name + " at " + address;
}

std::string Trel_LinkTexts::Refusal(const Trel_LinkEvent& event, bool isMaster) {
  using Reason = Trel_LinkEvent::Reason;
  const std::string who = isMaster ? Name(event.system) + " was refused: " : "Refused by " + Name(event.system) + ": ";
  switch (event.reason) {
  case Reason::notAllowed:
    return who + "no satellite may connect now. Allow satellites to connect.";
  case Reason::full:
    return who + "as many satellites as allowed are linked, " + std::to_string(event.value) +
           ". Allow more (MaxNumberSatellites), or end the host of another satellite.";
  case Reason::identifierUsed:
    return who +
           (isMaster ? "it has the identifier " + std::to_string(event.system.uniqueID) + ", which"
                     : "identifier " + std::to_string(event.other.uniqueID)) +
           " is already used by " + Name(event.other) + ". Give one of them another identifier.";
  case Reason::endedEarly:
    return "The master at " + Sys_Socket::DecodeIPAddress(event.system.address) +
           " ended the connection before this system was linked. It may be stopping.";
  case Reason::notAdmitted:
    return who + "it has as many satellites as it allows, or allows none now. Allow more there "
                 "(MaxNumberSatellites), or end the host of another satellite.";
  default:
    return NetworkError(event.error, Name(event.system));
  }
}

std::string Trel_LinkTexts::Mesh(const Trel_LinkEvent& event, bool isMaster) {
  using Reason = Trel_LinkEvent::Reason;
  const std::string who = Name(event.system);
  if (event.kind == Trel_LinkEvent::Kind::meshConnected) {
    return isMaster ? who + " is connected to " + Name(event.other) + '.' : "Connected to " + who + '.';
  }
  if (isMaster) {
    return who + " cannot connect to " + Name(event.other) + ". Check the network between the two.";
  }
  switch (event.reason) {
  case Reason::cannotConnect:
    return "Cannot connect to " + who + ". Check the network between the two; this is tried again.";
  case Reason::networkError:
    return NetworkError(event.error, who);
  default:
    return who + " has disconnected from this system.";
  }
}

std::string Trel_LinkTexts::Link(const Trel_LinkEvent& event, bool isMaster) {
  using Kind = Trel_LinkEvent::Kind;
  using Reason = Trel_LinkEvent::Reason;
  const std::string who = Name(event.system);
  const std::string others = Others(event);
  std::string text;
  switch (event.kind) {
  case Kind::searching:
    text = "Searching the network for a master.";
    break;
  case Kind::masterFound:
    text = "Found the master " + who + '.' +
           (others.empty() ? "" : " There are others, and the lowest address was taken: " + others + '.');
    break;
  case Kind::noMaster:
    text = event.reason == Reason::noAddress ? kNoAddress
           : others.empty() ? "No master answers on the network. Start one, or give its address; masters that have a "
                              "shared secret answer only those who have it too."
                            : "No master can be connected to: " + others + ". Allow satellites to connect there.";
    break;
  case Kind::connecting:
    text = "Connecting to " + who + '.';
    break;
  case Kind::connectFailed:
    text = event.reason == Reason::isThisSystem
               ? who + " is the address of this system itself. Give the address of the master."
           : event.reason == Reason::noAddress ? kNoAddress
           : event.reason == Reason::notInTime
               ? who + " did not link this system in time. Check that it is a master, and not overloaded."
               : "No answer from " + who + ". Check that it is running, its address, and the cable.";
    break;
  case Kind::connected:
    text = isMaster ? who + " has connected." : "Connected to " + who + '.';
    break;
  case Kind::refused:
    text = Refusal(event, isMaster);
    break;
  case Kind::orderNumber:
    text = (!isMaster && event.isHere ? "This system" : who) + " has place " + std::to_string(event.value) + '.';
    break;
  case Kind::systems:
    text = "The link has " + Count(event.value, "system") + '.';
    break;
  case Kind::meshConnected:
  case Kind::meshFailed:
    text = Mesh(event, isMaster);
    break;
  case Kind::linked:
    text = isMaster ? who + " is linked." : "Linked with " + who + '.';
    break;
  case Kind::left:
    text = event.reason == Reason::notInTime
               ? who + " did not complete the link and was disconnected. Check what runs there."
           : event.reason == Reason::unlinkedHere ? (isMaster ? who + " was unlinked." : "Left " + who + '.')
                                                  : who + (isMaster ? " has left the link." : " has ended the link.");
    break;
  case Kind::lost:
    text = event.reason == Reason::connectedAnew    ? who + " has connected anew."
           : event.reason == Reason::addressChanged ? who + " is lost, because the address of this system has changed."
                                                    : NetworkError(event.error, who);
    break;
  case Kind::waiting:
    text = "The next attempt is in " + Seconds(event.value) + '.';
    break;
  case Kind::named:
    text = "The system at " + Sys_Socket::DecodeIPAddress(event.system.address) + " is now named " + event.system.name +
           '.';
    break;
  case Kind::control:
    if (event.reason == Reason::addressChanged) {
      text = "The address of this system is now " + Sys_Socket::DecodeIPAddress(event.other.address) +
             (event.isHere ? ", and it is in control." : ".");
    } else {
      text = (!isMaster && event.isHere   ? "This system"
              : event.system.address == 0 ? "Another system"
                                          : who) +
             " is in control.";
    }
    break;
  case Kind::otherMaster:
    text = who + " is a master on this network too. Satellites that search take one of the two; name the one that is "
                 "meant to each.";
    break;
  case Kind::leftOut:
    text = Count(event.value, "message") + " about " + who + " were left out: it sends too many.";
    break;
  case Kind::networkError:
    text = NetworkError(event.error, who);
    break;
  default:
    break;
  }
  return text;
}

std::string Trel_LinkTexts::Playing(const Trel_LinkEvent& event) {
  using Kind = Trel_LinkEvent::Kind;
  const std::string by = ", told by " + Listed(event.system);
  switch (event.kind) {
  case Kind::primed:
    return "primed" + by;
  case Kind::primeFailed:
    return "could not get ready to play" + by;
  case Kind::start:
    return event.start.isJoining ? "joins in " + Milliseconds(event.value) + by
           : event.value < 0     ? "starts at once: the start has come " + Milliseconds(-event.value) + " late" + by
                                 : "starts in " + Milliseconds(event.value) + by;
  case Kind::started:
    return (event.start.isJoining ? "joined, " : "started, ") + Lateness(event.value) +
           (event.value > kNoticeablyLate ? "; the start came too late or this machine is too busy: give more time"
                                          : "");
  case Kind::startFailed:
    return "cannot start: " + StartFailed(event);
  case Kind::stopped:
    return "stopped" + by;
  default:
    return Together(event.outcome, event.others);
  }
}

std::string Trel_LinkTexts::StartFailed(const Trel_LinkEvent& event) {
  using Reason = Trel_LinkEvent::Reason;
  const std::string late = event.value > 0 ? "the start has come " + Milliseconds(event.value) + " late" : "";
  switch (event.reason) {
  case Reason::notPrimed:
    return "this system is not primed";
  case Reason::clockNotLocked:
    return "the clock of this system is not locked to the master's";
  case Reason::masterGone:
    return "it was agreed in the running time of a master that is gone";
  case Reason::hostSilent:
    return "the host has not told whether it began";
  case Reason::superseded:
    return "it was stopped before, or another one was agreed on";
  default:
    return !event.words.empty() ? event.words : late.empty() ? "the host does not make it" : late;
  }
}

std::string Trel_LinkTexts::Together(const Trel_StartOutcome& outcome,
                                     const std::vector<Trel_LinkEvent::System>& systems) {
  using Missing = Trel_StartOutcome::Missing;
  const std::size_t began = outcome.late.size();
  std::string text = began == 0 ? "no system started" : Count(static_cast<std::int64_t>(began), "system") + " started";
  if (began > 1) {
    text += " within " + std::to_string(outcome.spread) + " us";
  }
  const auto name = [&systems](std::uint32_t address) {
    const auto system =
        std::find_if(systems.begin(), systems.end(), [address](const auto& known) { return known.address == address; });
    return "\n  " + (system != systems.end() ? Listed(*system) : Sys_Socket::DecodeIPAddress(address));
  };
  for (const auto& [address, late] : outcome.late) {
    text += name(address) + ": " + Lateness(late);
  }
  for (const auto& [address, missing] : outcome.missing) {
    text += name(address) + (missing == Missing::notReported ? ": has not reported its start"
                             : missing == Missing::notPrimed ? ": did not start, it was not primed"
                             : missing == Missing::lost      ? ": is lost"
                                                             : ": did not start");
  }
  return text;
}

std::string Trel_LinkTexts::State(const Trel_LinkEvent& event) {
  using Kind = Trel_LinkEvent::Kind;
  const bool isOn = event.isOn;
  const std::string who = event.isHere ? "this system " : Listed(event.system) + ": ";
  const std::string by = ", told by " + Listed(event.system);
  switch (event.kind) {
  case Kind::clock:
    return event.isHere ? std::string("the clock of this system is ") + (isOn ? "" : "not ") +
                              "locked to the master's" + (isOn ? "" : " any more")
                        : who + (isOn ? "its clock is locked" : "its clock is not locked any more");
  case Kind::transport:
    return who + Transport(event.state.transport);
  case Kind::takingPart:
    return who + (isOn ? "plays along" : "does not play along");
  case Kind::online:
    return who + (isOn ? "is on line" : "is off line");
  case Kind::recording:
    return who + (isOn ? "records" : "does not record");
  case Kind::soloed:
    return (event.isHere ? "" : who) + (isOn ? "a track is soloed" : "no track is soloed") +
           (event.isHere ? " here" : "");
  case Kind::loopPlay:
    return std::string("loop play is ") + (isOn ? "on" : "off") + by;
  case Kind::selection:
    return "selection from " + Position(event.range.in) + " to " + Position(event.range.out) + by;
  case Kind::groups:
    return "groups that are enabled:" + Groups(event.groups) + by;
  case Kind::videoReference:
    return who + "video reference " + VideoReference(event.state.videoReference);
  case Kind::dialog:
    return who + (event.words.empty() ? "its dialog is closed" : "dialog: " + event.words);
  default:
    return std::string("the dialog here was closed with ") + (isOn ? "ok" : "cancel") + " by " + Listed(event.system);
  }
}

std::string Trel_LinkTexts::Refused(const Trel_LinkEvent& event) {
  using Reason = Trel_LinkEvent::Reason;
  static constexpr std::array kWishes = {"prime", "start",    "stop", "loop",  "select",
                                         "group", "solo all", "link", "online"};
  const char* const why = event.reason == Reason::noSuchTime    ? "there is no such time"
                          : event.reason == Reason::tooFarAhead ? "it lies more than 24 hours ahead"
                                                                : "that system is not in control";
  return std::string(kWishes.at(static_cast<std::size_t>(event.wish))) + " from " + Listed(event.system) +
         " was refused: " + why;
}

std::string Trel_LinkTexts::Describe(const Trel_LinkEvent& event, bool isMaster) {
  using Kind = Trel_LinkEvent::Kind;
  const bool isOfLink = event.kind <= Kind::networkError;
  const bool isOfPlaying = event.kind >= Kind::primed && event.kind <= Kind::together;
  const std::string text = isOfLink                          ? Link(event, isMaster)
                           : isOfPlaying                     ? Playing(event)
                           : event.kind == Kind::wishRefused ? Refused(event)
                                                             : State(event);
  return event.kind == Kind::together ? text : Cmn_Printable(text);
}

std::string Trel_LinkTexts::Describe(Trel_LinkRefusal refusal, const std::string& holder) {
  switch (refusal) {
  case Trel_LinkRefusal::none:
    return "";
  case Trel_LinkRefusal::notLinked:
    return "this system is not linked with a master yet";
  case Trel_LinkRefusal::notInControl:
    return holder.empty() ? "this system is not in control" : holder + " is in control";
  case Trel_LinkRefusal::clockNotLocked:
    return "the clock of this system is not locked to the master's yet";
  case Trel_LinkRefusal::notPrimed:
    return "nothing is primed";
  case Trel_LinkRefusal::othersNotReady:
    return "not all systems are ready";
  case Trel_LinkRefusal::inThePast:
    return "a start cannot lie in the past";
  case Trel_LinkRefusal::tooFarAhead:
    return "a start lies at most 24 hours ahead";
  case Trel_LinkRefusal::noDialog:
    return "there is no dialog on any screen";
  case Trel_LinkRefusal::unknownSystem:
    return "no linked system has this address";
  case Trel_LinkRefusal::notMaster:
    return "only the master can do this";
  }
  return "";
}
