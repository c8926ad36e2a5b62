#include "tools/trel/demo/Demo_Results.h"

#include <trel/Sys_Socket.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <iomanip>
#include <ostream>
#include <sstream>

using OrderedJson = nlohmann::ordered_json;

// Stands beside its type, where the conversion looks for it.
static void to_json(OrderedJson& json, const Percentiles& figures) {
  json = {{"p50", figures.p50}, {"p99", figures.p99}, {"max", figures.max}};
}

namespace {

std::vector<std::int64_t> LatenessOf(const Demo_Results::Start& start) {
  std::vector<std::int64_t> values;
  for (const auto& [address, late] : start.late) {
    values.push_back(late);
  }
  return values;
}

template <class Value>
OrderedJson ToJson(const std::optional<Value>& value) {
  return value ? OrderedJson(*value) : OrderedJson();
}

std::string Seconds(std::optional<double> time) {
  std::ostringstream text;
  if (time) {
    text << std::fixed << std::setprecision(3) << *time / 1000 << " s";
  } else {
    text << "never";
  }
  return text.str();
}

std::string WithSign(double value, int digits, const char* unit) {
  std::ostringstream text;
  text << std::showpos << std::fixed << std::setprecision(digits) << value << unit;
  return text.str();
}

} // namespace

std::int64_t Demo_Results::Start::Spread() const { return SpreadOf(LatenessOf(*this)); }

void Demo_Results::PrintTable(std::ostream& out) const {
  constexpr double kMicrosecondsPerHour = 3.6e9;
  out << "\nClock error against the truth, median of its bound, microseconds; linked and locked since the start of the "
         "demonstration\n"
      << std::left << std::setw(13) << "address" << std::setw(19) << "name" << std::right << std::setw(11) << "offset"
      << std::setw(9) << "drift" << std::setw(11) << "linked" << std::setw(11) << "locked" << std::setw(7) << "p50"
      << std::setw(7) << "p99" << std::setw(7) << "max" << std::setw(8) << "bound" << '\n';
  for (const Satellite& satellite : satellites) {
    out << std::left << std::setw(13) << Sys_Socket::DecodeIPAddress(satellite.address) << std::setw(19)
        << satellite.name << std::right << std::setw(11)
        << WithSign(static_cast<double>(satellite.offset) / kMicrosecondsPerHour, 3, " h") << std::setw(9)
        << WithSign(satellite.driftPPM, 0, " ppm") << std::setw(11) << Seconds(satellite.linkedMilliseconds)
        << std::setw(11) << Seconds(satellite.lockedMilliseconds);
    if (satellite.clockError) {
      out << std::setw(7) << satellite.clockError->p50 << std::setw(7) << satellite.clockError->p99 << std::setw(7)
          << satellite.clockError->max;
      out << std::setw(8) << (satellite.errorBound ? std::to_string(satellite.errorBound->p50) : "-");
    } else {
      out << "  not measured";
    }
    out << '\n';
  }

  out << "\nStarts, microseconds; spread: last actual start minus first, late: against the agreed running time\n"
      << std::setw(5) << "round" << std::setw(9) << "systems" << std::setw(9) << "spread" << std::setw(10) << "earliest"
      << std::setw(8) << "latest" << '\n';
  std::vector<std::int64_t> spreads;
  for (const Start& start : starts) {
    const auto lateness = LatenessOf(start);
    spreads.push_back(start.Spread());
    out << std::setw(5) << spreads.size() << std::setw(9) << lateness.size() << std::setw(9) << spreads.back()
        << std::setw(10) << *std::min_element(lateness.begin(), lateness.end()) << std::setw(8)
        << *std::max_element(lateness.begin(), lateness.end()) << '\n';
  }
  if (!spreads.empty()) {
    out << "median spread " << PercentilesOf(spreads).p50 << " us\n";
  }

  out << (failures.empty() ? "\nEverything happened.\n" : "\nFailures:\n");
  for (const std::string& failure : failures) {
    out << "  " << failure << '\n';
  }
}

void Demo_Results::WriteJson(std::ostream& out) const {
  OrderedJson json = {{"numbering", isLegacy ? "legacy" : "current"},
                      {"satellites", OrderedJson::array()},
                      {"starts", OrderedJson::array()},
                      {"failures", failures}};
  for (const Satellite& satellite : satellites) {
    json["satellites"].push_back({{"address", Sys_Socket::DecodeIPAddress(satellite.address)},
                                  {"name", satellite.name},
                                  {"offset_us", satellite.offset},
                                  {"drift_ppm", satellite.driftPPM},
                                  {"linked_ms", ToJson(satellite.linkedMilliseconds)},
                                  {"locked_ms", ToJson(satellite.lockedMilliseconds)},
                                  {"clock_error_us", ToJson(satellite.clockError)},
                                  {"error_bound_us", ToJson(satellite.errorBound)}});
  }
  for (const Start& start : starts) {
    OrderedJson late = OrderedJson::object();
    for (const auto& [address, value] : start.late) {
      late[Sys_Socket::DecodeIPAddress(address)] = value;
    }
    json["starts"].push_back(
        {{"agreed_running_time", start.agreedRunningTime}, {"spread_us", start.Spread()}, {"late_us", late}});
  }
  out << json.dump(2) << '\n';
}
