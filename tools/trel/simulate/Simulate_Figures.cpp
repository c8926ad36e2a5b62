#include "tools/trel/simulate/Simulate_Figures.h"

#include "tools/trel/common/DurationText.h"
#include "tools/trel/common/Percentiles.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <sstream>
#include <string>
#include <string_view>

namespace {

struct Magnitudes {
  std::optional<double> rms;
  std::optional<double> p50;
  std::optional<double> p99;
  std::optional<double> largest;
};

Magnitudes MagnitudesOf(const std::vector<std::int64_t>& tenths) {
  if (tenths.empty()) {
    return {};
  }
  double squares = 0;
  for (const std::int64_t value : tenths) {
    squares += static_cast<double>(value) * static_cast<double>(value);
  }
  const Percentiles ranks = PercentilesOf(tenths);
  return {.rms = std::sqrt(squares / static_cast<double>(tenths.size())) / Simulate_Figures::kTenths,
          .p50 = static_cast<double>(ranks.p50) / Simulate_Figures::kTenths,
          .p99 = static_cast<double>(ranks.p99) / Simulate_Figures::kTenths,
          .largest = static_cast<double>(ranks.max) / Simulate_Figures::kTenths};
}

std::string TextOf(double value, std::string_view unit) {
  constexpr double kPreciseBelow = 1000; // microseconds
  if (unit == "TIME" && value >= kPreciseBelow) {
    return DurationText(std::llround(value));
  }
  std::ostringstream text;
  text << std::fixed << std::setprecision(unit == "PERCENT" ? 3 : 1) << value
       << (unit == "TIME"      ? " us"
           : unit == "PERCENT" ? " %"
                               : " /s");
  return text.str();
}

template <class Value>
void Append(std::vector<Value>& to, const std::vector<Value>& from) {
  to.insert(to.end(), from.begin(), from.end());
}

/// The later one; none when there is none in a run.
void KeepLatest(std::optional<double>& latest, const std::optional<double>& time, bool isFirst) {
  latest = isFirst ? time : latest && time ? std::optional(std::max(*latest, *time)) : std::nullopt;
}

} // namespace

void Simulate_Figures::Add(const Run& run) {
  KeepLatest(mAll.lock, run.lock, mRuns == 0);
  KeepLatest(mAll.usable, run.usable, mRuns == 0);
  Append(mAll.errors, run.errors);
  Append(mAll.errorsAhead, run.errorsAhead);
  Append(mAll.bounds, run.bounds);
  mAll.beyond += run.beyond;
  mAll.falseLock = std::max(mAll.falseLock, run.falseLock);
  mAll.roundTrips += run.roundTrips;
  ++mRuns;
}

std::array<std::optional<double>, Simulate_Figures::kCount> Simulate_Figures::Values() const {
  const Magnitudes now = MagnitudesOf(mAll.errors);
  const Magnitudes ahead = MagnitudesOf(mAll.errorsAhead);
  const auto errors = static_cast<double>(std::max<std::size_t>(mAll.errors.size(), 1));
  return {mAll.lock,
          mAll.usable,
          now.rms,
          now.p99,
          now.largest,
          ahead.rms,
          ahead.p99,
          ahead.largest,
          MagnitudesOf(mAll.bounds).p50,
          100 * static_cast<double>(mAll.beyond) / errors,
          mAll.falseLock,
          mAll.roundTrips / static_cast<double>(std::max<std::size_t>(mRuns, 1))};
}

bool Simulate_Figures::Hold(const Limits& limits) const {
  const auto values = Values();
  return std::equal(limits.begin(), limits.end(), values.begin(),
                    [](const auto& limit, const auto& value) { return Holds(value, limit); });
}

void Simulate_Figures::Print(std::ostream& out, const Limits& limits) const {
  constexpr int kMeaningWidth = 52;
  constexpr int kValueWidth = 10;
  const auto values = Values();
  for (std::size_t figure = 0; figure < kCount; ++figure) {
    const Row& row = kRows[figure];
    const std::optional<double>& value = values[figure];
    const std::optional<double>& limit = limits[figure];
    out << "  " << std::left << std::setw(kMeaningWidth) << row.meaning << std::right << std::setw(kValueWidth)
        << (value ? TextOf(*value, row.unit) : "never");
    if (limit) {
      out << "  (limit " << TextOf(*limit, row.unit) << (Holds(value, limit) ? ")" : ", not held)");
    }
    out << '\n';
  }
}

nlohmann::ordered_json Simulate_Figures::AsJson() const {
  nlohmann::ordered_json json;
  const auto values = Values();
  for (std::size_t figure = 0; figure < kCount; ++figure) {
    json[kRows[figure].key] = values[figure] ? nlohmann::ordered_json(*values[figure]) : nlohmann::ordered_json();
  }
  return json;
}
