#include "tools/trel/report/Report_Collector.h"

#include <algorithm>
#include <cmath>

namespace {

using Json = Report_Collector::Json;

// A recording may come from anywhere; a link has 129 systems.
constexpr std::size_t kMostSystems = 256;
constexpr std::size_t kMostStarts = 100'000;
constexpr std::size_t kMostNotesKept = 10'000;

std::string TextOf(const Json& event, const char* name) {
  const auto value = event.find(name);
  return value != event.end() && value->is_string() ? value->get<std::string>() : std::string();
}

bool IsTrue(const Json& event, const char* name) {
  const auto value = event.find(name);
  return value != event.end() && value->is_boolean() && value->get<bool>();
}

std::optional<double> NumberOf(const Json& event, const char* name) {
  const auto value = event.find(name);
  return value != event.end() && value->is_number() ? std::optional(value->get<double>()) : std::nullopt;
}

std::optional<std::int64_t> WholeNumber(const Json& value) {
  constexpr double kMost = 1e15; // 30 years in microseconds: differences and sums do not overflow
  return value.is_number() && std::abs(value.get<double>()) <= kMost ? std::optional(std::llround(value.get<double>()))
                                                                     : std::nullopt;
}

std::optional<std::int64_t> WholeNumberOf(const Json& event, const char* name) {
  const auto value = event.find(name);
  return value != event.end() ? WholeNumber(*value) : std::nullopt;
}

/// Three digits are enough for a picture, and bound the number of values.
std::int64_t Rounded(std::int64_t value) {
  std::int64_t unit = 1;
  for (; value / unit >= 1000; unit *= 10) {
  }
  return value / unit * unit;
}

} // namespace

void Report_Collector::ReadFrom(std::istream& recording) {
  for (std::string line; std::getline(recording, line);) {
    const Json event = Json::parse(line, nullptr, false);
    if (event.is_object()) {
      Take(event);
    } else {
      ++mLinesPassedOver;
    }
  }
}

void Report_Collector::Take(const Json& event) {
  const std::string kind = TextOf(event, "event");
  const auto time = WholeNumberOf(event, "time_us");
  if (kind.empty() || !time) {
    ++mLinesPassedOver;
    return;
  }
  ++mEvents;
  mData.begin = std::min(mData.begin, *time);
  mData.end = std::max(mData.end, *time);
  if (kind == "recording") {
    const std::string title = TextOf(event, "title");
    mData.title = title.empty() ? mData.title : title;
    mData.subtitle = TextOf(event, "subtitle");
    return;
  }
  if (kind == "ready") {
    mRecorder = TextOf(event, "address");
    mData.subtitle = "Recorded by " + TextOf(event, "name") + ", " + TextOf(event, "role");
  }
  if (Report_Data::System* const system = SystemOf(event)) {
    TakeSystem(*system, event);
    if (kind == "clock") {
      TakeClock(*system, event, *time);
    } else if (kind == "round_trip") {
      TakeRoundTrip(*system, event);
    } else if (kind == "started") {
      TakeStart(system->address, event, event.value("late_us", Json()), *time);
    } else if ((kind == "left" || kind == "lost") && system->clock.empty() && !system->states.empty()) {
      TakeState(*system, *time, "lost", "the link has ended");
    }
  }
  if (kind == "together") {
    TakeStarts(event, *time);
  }
  TakeNote(event, *time, kind == "failure" || kind == "lost" || kind == "start_failed");
}

Report_Data::System* Report_Collector::SystemOf(const Json& event) {
  const std::string address = event.contains("address") ? TextOf(event, "address") : mRecorder;
  if (address.empty()) {
    return nullptr;
  }
  const auto known = std::find_if(mData.systems.begin(), mData.systems.end(),
                                  [&](const Report_Data::System& system) { return system.address == address; });
  if (known != mData.systems.end()) {
    return &*known;
  }
  if (mData.systems.size() >= kMostSystems) {
    return nullptr;
  }
  return &mData.systems.emplace_back(Report_Data::System{.address = address, .name = address});
}

void Report_Collector::TakeSystem(Report_Data::System& system, const Json& event) {
  const std::string name = TextOf(event, "name");
  const std::string role = TextOf(event, "role");
  system.name = name.empty() ? system.name : name;
  system.role = role.empty() ? system.role : role;
}

void Report_Collector::TakeClock(Report_Data::System& system, const Json& event, std::int64_t time) {
  if (!event.contains("state")) {
    if (system.clock.empty()) { // otherwise more is known of it
      TakeState(system, time, IsTrue(event, "locked") || IsTrue(event, "on") ? "locked" : "lost", "as it says itself");
    }
    return;
  }
  system.clock.push_back({.time = time,
                          .error = NumberOf(event, "error_us"),
                          .bound = NumberOf(event, "error_bound_us"),
                          .residual = NumberOf(event, "residual_us")});
  TakeState(system, time, TextOf(event, "state"), TextOf(event, "reason"));
  const auto rate = NumberOf(event, "rate_ppm");
  system.ratePPM = rate ? rate : system.ratePPM;
  const std::int64_t accepted = WholeNumberOf(event, "accepted").value_or(system.accepted);
  if (accepted != system.accepted) {
    TakeRoundTrip(system, event);
  }
  system.accepted = accepted;
  system.rejected = WholeNumberOf(event, "rejected_not_vouched_for").value_or(0) +
                    WholeNumberOf(event, "rejected_round_trip_too_long").value_or(0);
}

void Report_Collector::TakeRoundTrip(Report_Data::System& system, const Json& event) {
  if (const auto roundTrip = WholeNumberOf(event, "round_trip_us")) {
    ++system.roundTrips[Rounded(*roundTrip)];
  }
}

void Report_Collector::TakeState(Report_Data::System& system, std::int64_t time, const std::string& state,
                                 const std::string& reason) {
  if (state.empty()) {
    return;
  }
  if (system.states.empty() || system.states.back().state != state) {
    system.states.push_back({time, state, reason});
  }
  system.stateEnd = time;
}

void Report_Collector::TakeStarts(const Json& event, std::int64_t time) {
  const auto late = event.find("late_us");
  if (late == event.end() || !late->is_object()) {
    return;
  }
  for (const auto& [address, value] : late->items()) {
    if (const Report_Data::System* const system = SystemOf({{"address", address}})) {
      TakeStart(system->address, event, value, time);
    }
  }
}

void Report_Collector::TakeStart(const std::string& address, const Json& event, const Json& lateValue,
                                 std::int64_t time) {
  const auto requested = WholeNumberOf(event, "running_time");
  const auto late = WholeNumber(lateValue);
  if (!requested || !late) {
    return;
  }
  auto start = std::find_if(mData.starts.rbegin(), mData.starts.rend(),
                            [&](const Report_Data::Start& known) { return known.runningTime == *requested; });
  if (start == mData.starts.rend()) {
    if (mData.starts.size() >= kMostStarts) {
      return;
    }
    mData.starts.push_back({.time = time, .runningTime = *requested});
    start = mData.starts.rbegin();
  }
  start->late[address] = *late;
}

void Report_Collector::TakeNote(const Json& event, std::int64_t time, bool isFailure) {
  mData.failures += isFailure ? 1 : 0;
  const std::string text = TextOf(event, "text");
  if (!text.empty() && mData.notes.size() < kMostNotesKept) {
    mData.notes.push_back({time, text, isFailure});
  }
}
