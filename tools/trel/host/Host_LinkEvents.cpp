#include "tools/trel/host/Host_LinkEvents.h"

#include "tools/trel/common/Texts.h"
#include "tools/trel/host/Host_Throttle.h"

#include <trel/Sys_Socket.h>

#include <algorithm>
#include <array>
#include <iomanip>
#include <sstream>
#include <utility>

namespace {

using Event = Trel_LinkEvent;
using Kind = Event::Kind;
using Reason = Event::Reason;
using Json = nlohmann::json;

void AddValue(const Event& event, Json& fields) { fields["value"] = event.value; }

void AddCount(const Event& event, Json& fields) { fields["count"] = event.value; }

void AddSwitch(const Event& event, Json& fields) { fields["on"] = event.isOn; }

void AddRange(const Event& event, Json& fields) {
  fields["in_us"] = event.range.in;
  fields["out_us"] = event.range.out;
}

void AddRunningTime(const Event& event, Json& fields) { fields["running_time"] = event.start.runningTime; }

void AddStart(const Event& event, Json& fields) {
  AddRunningTime(event, fields);
  fields["in_us"] = event.value;
  if (event.start.late > 0) {
    fields["late_us"] = event.start.late;
  }
  if (event.start.isJoining) {
    fields["position_us"] = event.start.position;
  }
}

void AddBeginning(const Event& event, Json& fields) {
  fields = Json::object(); // of this system
  AddRunningTime(event, fields);
  fields["late_us"] = event.value;
}

void AddFailure(const Event& event, Json& fields) {
  AddRunningTime(event, fields);
  if (event.start.late > 0) {
    fields["late_us"] = event.start.late;
  }
}

void AddOutcome(const Event& event, Json& fields) {
  const Trel_StartOutcome& outcome = event.outcome;
  Json late = Json::object();
  for (const auto& [address, value] : outcome.late) {
    late[Sys_Socket::DecodeIPAddress(address)] = value;
  }
  Json missing = Json::array();
  for (const auto& [address, reason] : outcome.missing) {
    missing.push_back(Sys_Socket::DecodeIPAddress(address));
  }
  fields = {{"running_time", outcome.runningTime},
            {"systems", outcome.late.size()},
            {"spread_us", outcome.spread},
            {"late_us", late},
            {"missing", missing}};
}

void AddTransport(const Event& event, Json& fields) { fields["transport"] = TransportText(event.state.transport); }

void AddTakingPart(const Event& event, Json& fields) {
  AddSwitch(event, fields);
  fields["clock_locked"] = event.state.isClockLocked;
}

void AddGroups(const Event& event, Json& fields) { fields["enabled"] = event.groups; }

void AddVideoReference(const Event& event, Json& fields) {
  fields["format"] = VideoReferenceText(event.state.videoReference);
}

void AddMessage(const Event& event, Json& fields) { fields["message"] = event.words; }

void AddButton(const Event& event, Json& fields) { fields["button"] = event.isOn ? "ok" : "cancel"; }

void AddWish(const Event& event, Json& fields) {
  constexpr std::array kWishes = {"prime", "start", "stop", "loop", "select", "group", "solo all", "link", "online"};
  const auto wish = static_cast<std::size_t>(event.wish);
  fields["what"] = wish < kWishes.size() ? kWishes.at(wish) : "unknown";
}

/// How this program tells a kind of event. Beside what `add` gives, there is the system that it is about.
struct Row {
  Kind kind;
  const char* name;
  void (*add)(const Event& event, Json& fields);
  bool isDetail = false;
};

constexpr Row kRows[] = {
    {Kind::searching, "searching", AddValue},
    {Kind::masterFound, "master_found", AddValue},
    {Kind::noMaster, "no_master", AddValue},
    {Kind::connecting, "connecting", AddValue, true},
    {Kind::connectFailed, "connect_failed", AddValue},
    {Kind::connected, "connected", AddValue, true},
    {Kind::refused, "link_refused", AddValue},
    {Kind::orderNumber, "order", AddValue, true},
    {Kind::systems, "systems", AddValue, true},
    {Kind::meshConnected, "mesh_connected", AddValue, true},
    {Kind::meshFailed, "mesh_failed", AddValue},
    {Kind::linked, "linked", AddValue},
    {Kind::left, "left", AddValue},
    {Kind::lost, "lost", AddValue},
    {Kind::waiting, "waiting", AddValue, true},
    {Kind::named, "named", AddValue},
    {Kind::control, "control", AddValue},
    {Kind::otherMaster, "other_master", nullptr},
    {Kind::leftOut, Host_Throttle::kLeftOut, AddCount},
    {Kind::networkError, "network_error", AddValue},
    {Kind::clock, "clock", AddSwitch},
    {Kind::primed, "primed", AddRange},
    {Kind::primeFailed, "prime_failed", AddRange},
    {Kind::start, "start", AddStart},
    {Kind::started, "started", AddBeginning},
    {Kind::startFailed, "start_failed", AddFailure},
    {Kind::stopped, "stopped", nullptr},
    {Kind::together, "together", AddOutcome},
    {Kind::transport, "transport", AddTransport},
    {Kind::takingPart, "link", AddTakingPart},
    {Kind::online, "online", AddSwitch},
    {Kind::recording, "record", AddSwitch},
    {Kind::soloed, "solo", AddSwitch},
    {Kind::loopPlay, "loop", AddSwitch},
    {Kind::selection, "selection", AddRange},
    {Kind::groups, "groups", AddGroups},
    {Kind::videoReference, "video_reference", AddVideoReference},
    {Kind::dialog, "dialog", AddMessage},
    {Kind::dialogClosed, "dialog_closed", AddButton},
    {Kind::wishRefused, "refused", AddWish},
};

/// Whether an event tells why a system is not linked; the others tell what it does about it.
bool TellsWhy(Kind kind) {
  return kind == Kind::searching || kind == Kind::noMaster || kind == Kind::connectFailed || kind == Kind::refused ||
         kind == Kind::left || kind == Kind::lost;
}

/// The option of this program that helps where an event says what to change.
const char* OptionFor(const Event& event) {
  const bool isNobodyFound = event.kind == Kind::noMaster && event.others.empty() && event.reason == Reason::none;
  if (isNobodyFound || event.kind == Kind::otherMaster) {
    return "--connect";
  }
  if (event.reason == Reason::identifierUsed) {
    return "--identifier";
  }
  if (event.reason == Reason::full || event.reason == Reason::notAdmitted) {
    return "--max-satellites";
  }
  return event.error == eNetworkError_OtherNumbering ? "--legacy" : nullptr;
}

/// What there is to add to an event's words.
std::string Addition(const Event& event) {
  if (event.kind == Kind::start && event.start.isJoining) {
    constexpr double kMicrosecondsOfSecond = 1e6;
    std::ostringstream text;
    text << ", at " << std::fixed << std::setprecision(1)
         << static_cast<double>(event.start.position) / kMicrosecondsOfSecond << " s";
    return text.str();
  }
  const char* const option = OptionFor(event);
  return option != nullptr ? std::string(" The option for that is ") + option + "." : "";
}

/// Whether only those who ask for more are told: an event of a kind that they are told of otherwise.
bool IsMinor(const Event& event) {
  return (event.kind == Kind::takingPart && event.value != 0) ||
         (event.kind == Kind::transport && event.state.transport == eTrel_State_Priming);
}

} // namespace

Host_Event Host_LinkEvents::Translate(const Trel_LinkEvent& event) {
  const auto* const row =
      std::find_if(std::begin(kRows), std::end(kRows), [&event](const Row& known) { return known.kind == event.kind; });
  if (row == std::end(kRows)) {
    return {.kind = "unknown", .text = event.text, .isDetail = true};
  }
  Json fields = Json::object();
  if (event.system.address != 0) {
    fields["address"] = Sys_Socket::DecodeIPAddress(event.system.address);
    if (!event.system.name.empty()) {
      fields["name"] = event.system.name;
    }
  }
  if (row->add != nullptr) {
    row->add(event, fields);
  }
  std::string text = event.text + Addition(event);
  const bool isAttempt = event.kind == Kind::connectFailed || event.kind == Kind::refused ||
                         event.kind == Kind::meshFailed || event.kind == Kind::networkError;
  // A satellite tries again and again; what stays the same is told once.
  const bool isRepeated = isAttempt && text == mLastFailure;
  if (isAttempt || event.kind == Kind::linked) {
    mLastFailure = text;
  }
  Note(event, text);
  return {.kind = row->name,
          .text = std::move(text),
          .fields = std::move(fields),
          .isDetail = row->isDetail || isRepeated || IsMinor(event)};
}

void Host_LinkEvents::Note(const Trel_LinkEvent& event, const std::string& text) {
  const std::lock_guard lock(mMutex);
  if (TellsWhy(event.kind)) {
    mWhyNotLinked = text;
  } else if (event.kind == Kind::together) {
    mLastPlayed = event.outcome.runningTime;
  } else if (event.kind == Kind::started && !mIsMaster) {
    mLastPlayed = event.start.runningTime;
  }
}

std::string Host_LinkEvents::WhyNotLinked() const {
  const std::lock_guard lock(mMutex);
  return mWhyNotLinked;
}

std::optional<std::int64_t> Host_LinkEvents::LastPlayed() const {
  const std::lock_guard lock(mMutex);
  return mLastPlayed;
}
