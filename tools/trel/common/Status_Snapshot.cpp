#include "tools/trel/common/Status_Snapshot.h"

#include "tools/trel/common/ClockFields.h"

#include <nlohmann/json.hpp>

#include <array>
#include <type_traits>

namespace {

using Json = nlohmann::ordered_json;
using Snapshot = Status_Snapshot;

constexpr std::array kSyncNames = {"no", "soon", "yes"};

// The names of all fields, for both directions.

template <class System, class Visitor>
void VisitSystem(System& system, const Visitor& visit) {
  visit("order", system.order);
  visit("name", system.name);
  visit("address", system.address);
  visit("role", system.role);
  visit("this_system", system.isThis);
  visit("in_control", system.isInControl);
  visit("connected", system.isConnected);
  visit("transport", system.transport);
  visit("clock_locked", system.isLocked);
  visit("plays_along", system.isTakingPart);
  visit("online", system.isOnline);
  visit("recording", system.isRecording);
  visit("solo", system.isSoloed);
  visit("silent_us", system.silence);
  visit("gone_us", system.gone);
  visit("lost", system.isLost);
  visit("round_trips", system.roundTrips);
  visit("round_trip_median_us", system.roundTripMedian);
  visit("round_trip_99_us", system.roundTrip99);
  visit("late_us", system.late);
  visit("losses", system.losses);
  visit("last_loss", system.lastLoss);
  visit("sent", system.sent);
  visit("sent_finished", system.sentFinished);
  visit("sent_refused", system.sentRefused);
  visit("sent_in_flight", system.sentInFlight);
  visit("sent_abandoned", system.sentAbandoned);
  visit("received", system.received);
  visit("received_finished", system.receivedFinished);
  visit("received_refused", system.receivedRefused);
  visit("received_in_flight", system.receivedInFlight);
  visit("waiting_senders", system.waitingSenders);
}

template <class Whole, class Visitor>
void VisitSnapshot(Whole& snapshot, const Visitor& visit) {
  visit("program", snapshot.program);
  visit("process", snapshot.process);
  visit("name", snapshot.name);
  visit("address", snapshot.address);
  visit("role", snapshot.role);
  visit("master", snapshot.isMaster);
  visit("linked", snapshot.isLinked);
  visit("why_not_linked", snapshot.whyNotLinked);
  visit("running_time_us", snapshot.runningTime);
  visit("in_control", snapshot.inControl);
  visit("in_sync", snapshot.sync);
  visit("verdict", snapshot.verdict);
  visit("why", snapshot.why);
  visit("clock", snapshot.clock);
  visit("systems", snapshot.systems);
  visit("dropped", snapshot.dropped);
}

/// Puts each field that it visits into an object.
struct Writer {
  template <class Value>
  void operator()(const char* name, const Value& value) const {
    object[name] = JsonOf(value);
  }
  template <class Value>
  static Json JsonOf(const Value& value) {
    return value;
  }
  template <class Value>
  static Json JsonOf(const std::optional<Value>& value) {
    return value ? JsonOf(*value) : Json(nullptr);
  }
  template <class Value>
  static Json JsonOf(const std::vector<Value>& values) {
    Json array = Json::array();
    for (const Value& value : values) {
      array.push_back(JsonOf(value));
    }
    return array;
  }
  static Json JsonOf(Status_Sync sync) { return kSyncNames.at(static_cast<std::size_t>(sync)); }
  static Json JsonOf(const Trel_ClockStatus& clock) {
    Json object = Json::object();
    VisitClockFields(clock, [&object](const char* name, auto value, bool isKnown) {
      if constexpr (std::is_enum_v<decltype(value)>) {
        object[name] = ClockText(value);
      } else {
        object[name] = isKnown ? Json(value) : Json(nullptr);
      }
    });
    return object;
  }
  static Json JsonOf(const Snapshot::System& system) {
    Json object = Json::object();
    VisitSystem(system, Writer{object});
    return object;
  }

  Json& object;
};

/// Fills each field that it visits from an object.
struct Reader {
  template <class Value>
  void operator()(const char* name, Value& value) const {
    if (const auto found = object.find(name); found != object.end()) {
      Read(*found, value);
    }
  }
  template <class Value>
  static void Read(const Json& json, Value& value) {
    if (std::is_integral_v<Value> && json.is_number_float()) {
      return; // may be outside of what the field can hold
    }
    try {
      json.get_to(value);
    } catch (const Json::exception&) {
      // Written by another version of the program.
    }
  }
  template <class Value>
  static void Read(const Json& json, std::optional<Value>& value) {
    if (!json.is_null()) {
      Read(json, value.emplace());
    }
  }
  template <class Value>
  static void Read(const Json& json, std::vector<Value>& values) {
    if (json.is_array()) {
      for (const Json& element : json) {
        Read(element, values.emplace_back());
      }
    }
  }
  static void Read(const Json& json, Status_Sync& sync) {
    for (std::size_t index = 0; index < kSyncNames.size(); ++index) {
      if (json == kSyncNames.at(index)) {
        sync = static_cast<Status_Sync>(index);
      }
    }
  }
  template <class Words>
  static void ReadWords(const Json& json, Words& words) {
    constexpr int kMostWords = 16;
    for (int value = 0; value < kMostWords; ++value) {
      if (json == ClockText(static_cast<Words>(value))) {
        words = static_cast<Words>(value);
        return;
      }
    }
  }
  static void Read(const Json& json, ETrel_ClockState& state) { ReadWords(json, state); }
  static void Read(const Json& json, ETrel_ClockReason& reason) { ReadWords(json, reason); }
  static void Read(const Json& json, Trel_ClockStatus& clock) {
    VisitClockFields(clock, [&json](const char* name, auto& value, bool /*isKnown*/) { Reader{json}(name, value); });
  }
  static void Read(const Json& json, Snapshot::System& system) { VisitSystem(system, Reader{json}); }

  const Json& object;
};

} // namespace

Json Status_Snapshot::ToJson() const {
  Json json = Json::object();
  VisitSnapshot(*this, Writer{json});
  return json;
}

Status_Snapshot Status_Snapshot::FromJson(const Json& json) {
  Status_Snapshot snapshot;
  VisitSnapshot(snapshot, Reader{json});
  return snapshot;
}

std::string Status_Snapshot::NameOf(const std::string& systemAddress) const {
  for (const System& system : systems) {
    if (system.address == systemAddress && !system.name.empty()) {
      return system.name + " (" + systemAddress + ")";
    }
  }
  return systemAddress;
}
