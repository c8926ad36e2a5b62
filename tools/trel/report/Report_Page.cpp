#include "tools/trel/report/Report_Page.h"

#include "tools/trel/common/JsonLine.h"
#include "tools/trel/common/Output_File.h"
#include "tools/trel/common/Percentiles.h"

#include <trel/Cmn_Printable.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <map>
#include <sstream>
#include <string_view>

extern const char* const kReport_Template; // @NAME@ stands where something is to be filled in

namespace {

using OrderedJson = nlohmann::ordered_json;
using Sample = Report_Data::ClockSample;
using System = Report_Data::System;

constexpr std::size_t kMostSamples = 2'400; // of each curve, two for each of its pieces
constexpr std::size_t kMostStates = 1'000;
constexpr std::size_t kMostNotesShown = 500;
constexpr double kLeastGap = 1.0; // seconds without a sample that leave a hole in a curve

/// Names in a recording come from the network, and the recording from anywhere.
std::string Escaped(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  std::string escaped;
  for (const char c : Cmn_Printable(text)) {
    switch (c) {
    case '&':
      escaped += "&amp;";
      break;
    case '<':
      escaped += "&lt;";
      break;
    case '>':
      escaped += "&gt;";
      break;
    case '"':
      escaped += "&quot;";
      break;
    default:
      escaped += c;
    }
  }
  return escaped;
}

double Seconds(const Report_Data& data, std::int64_t time) {
  return std::round(static_cast<double>(time - data.begin) / 1e3) / 1e3;
}

OrderedJson Value(const std::optional<double>& value) {
  return value ? OrderedJson(std::round(*value * 10) / 10) : OrderedJson();
}

/// The sample that matters most of a piece of the recording: that with the largest error, else with the largest bound.
bool IsLess(const Sample& a, const Sample& b) {
  const auto weight = [](const Sample& sample) {
    return std::pair(std::abs(sample.error.value_or(0.0)), sample.bound.value_or(0.0));
  };
  return weight(a) < weight(b);
}

std::vector<Sample> Thinned(const std::vector<Sample>& samples) {
  if (samples.size() <= kMostSamples) {
    return samples;
  }
  std::vector<Sample> kept;
  const std::size_t pieces = kMostSamples / 2;
  for (std::size_t piece = 0; piece < pieces; ++piece) {
    const auto first = samples.begin() + static_cast<std::ptrdiff_t>(samples.size() * piece / pieces);
    const auto last = samples.begin() + static_cast<std::ptrdiff_t>(samples.size() * (piece + 1) / pieces);
    const auto largest = std::max_element(first, last, IsLess);
    kept.push_back(*first);
    if (largest != first) {
      kept.push_back(*largest);
    }
  }
  return kept;
}

/// Twice the longest that two neighbours are apart as a rule.
double GapOf(const Report_Data& data, const std::vector<std::vector<Sample>>& curves) {
  double gap = kLeastGap;
  for (const auto& curve : curves) {
    if (curve.size() > 1) {
      const double length = Seconds(data, curve.back().time) - Seconds(data, curve.front().time);
      gap = std::max(gap, 4.0 * length / static_cast<double>(curve.size()));
    }
  }
  return gap;
}

std::string DataText(const Report_Data& data) {
  std::vector<std::vector<Sample>> curves;
  for (const System& system : data.systems) {
    curves.push_back(Thinned(system.clock));
  }
  OrderedJson json = {{"duration", Seconds(data, data.end)},
                      {"gap", GapOf(data, curves)},
                      {"systems", OrderedJson::array()},
                      {"starts", OrderedJson::array()}};
  for (std::size_t i = 0; i < data.systems.size(); ++i) {
    const System& system = data.systems[i];
    OrderedJson clock = OrderedJson::array();
    for (const Sample& sample : curves[i]) {
      clock.push_back({Seconds(data, sample.time), Value(sample.error), Value(sample.bound), Value(sample.residual)});
    }
    OrderedJson states = OrderedJson::array();
    for (const auto& change : system.states) {
      if (states.size() < kMostStates) {
        states.push_back({Seconds(data, change.time), change.state, change.reason});
      }
    }
    json["systems"].push_back({{"name", system.name},
                               {"address", system.address},
                               {"master", system.role == "master"},
                               {"clock", clock},
                               {"states", states},
                               {"end", Seconds(data, system.clock.empty() ? data.end : system.stateEnd)},
                               {"roundTrips", OrderedJson(system.roundTrips)}});
  }
  for (const auto& start : data.starts) {
    json["starts"].push_back({{"time", Seconds(data, start.time)}, {"late", start.late}});
  }
  // In a script element nothing but "<" could end it.
  std::string text = JsonLine(json);
  for (std::size_t at = 0; (at = text.find('<', at)) != std::string::npos;) {
    text.replace(at, 1, "\\u003c");
  }
  return text;
}

std::vector<std::int64_t> ErrorsOf(const System& system) {
  std::vector<std::int64_t> errors;
  for (const Sample& sample : system.clock) {
    if (sample.error) {
      errors.push_back(std::llround(std::abs(*sample.error)));
    }
  }
  return errors;
}

std::vector<std::int64_t> BoundsOf(const System& system) {
  std::vector<std::int64_t> bounds;
  for (const Sample& sample : system.clock) {
    if (sample.bound) {
      bounds.push_back(std::llround(*sample.bound));
    }
  }
  return bounds;
}

/// Of the starts of which more than one system is known.
std::vector<std::int64_t> SpreadsOf(const Report_Data& data) {
  std::vector<std::int64_t> spreads;
  for (const auto& start : data.starts) {
    if (start.late.size() < 2) {
      continue;
    }
    std::vector<std::int64_t> late;
    for (const auto& [address, value] : start.late) {
      late.push_back(value);
    }
    spreads.push_back(SpreadOf(late));
  }
  return spreads;
}

std::string Tile(const char* name, const std::string& value, const char* style = "") {
  std::ostringstream text;
  text << "<div><dt>" << name << "</dt><dd class=\"" << style << "\">" << value << "</dd></div>";
  return text.str();
}

std::string Tiles(const Report_Data& data) {
  std::string tiles = "<dl class=\"tiles\">";
  tiles += Tile("Failures", data.failures == 0 ? "none" : std::to_string(data.failures),
                data.failures == 0 ? "good" : "bad");
  tiles += Tile("Systems", std::to_string(data.systems.size()));
  std::vector<std::int64_t> errors;
  for (const System& system : data.systems) {
    const auto those = ErrorsOf(system);
    errors.insert(errors.end(), those.begin(), those.end());
  }
  if (!errors.empty()) {
    tiles += Tile("Clock error, median", std::to_string(PercentilesOf(errors).p50) + " µs");
    tiles += Tile("Clock error, 99 % below", std::to_string(PercentilesOf(errors).p99) + " µs");
  }
  const auto spreads = SpreadsOf(data);
  tiles += Tile("Rounds", std::to_string(data.starts.size()));
  if (!spreads.empty()) {
    tiles += Tile("Spread of starts, median", std::to_string(PercentilesOf(spreads).p50) + " µs");
    tiles += Tile("Spread of starts, largest", std::to_string(PercentilesOf(spreads).max) + " µs");
  }
  return tiles + "</dl>";
}

std::string Cells(const std::vector<std::int64_t>& values) {
  if (values.empty()) {
    return "<td>–</td><td>–</td><td>–</td>";
  }
  const Percentiles figures = PercentilesOf(values);
  return "<td>" + std::to_string(figures.p50) + "</td><td>" + std::to_string(figures.p99) + "</td><td>" +
         std::to_string(figures.max) + "</td>";
}

std::string SummaryTable(const Report_Data& data) {
  std::ostringstream out;
  out << "<p>Microseconds. Clock error without its sign; lateness with it.</p><div class=\"scroll\"><table><thead><tr>"
         "<th>System</th><th>Address</th><th>Role</th><th>Rate</th><th>Exchanges<br>taken / passed over</th>"
         "<th>Error<br>median</th><th><br>99 %</th><th><br>max</th><th>Bound<br>median</th>"
         "<th>Starts</th><th>Earliest</th><th>Latest</th></tr></thead><tbody>\n";
  for (const System& system : data.systems) {
    out << "<tr><td>" << Escaped(system.name) << "</td><td>" << Escaped(system.address) << "</td><td>"
        << Escaped(system.role) << "</td><td>";
    if (system.ratePPM) {
      out << std::showpos << std::fixed << std::setprecision(1) << *system.ratePPM << std::noshowpos << " ppm";
    }
    out << "</td><td>";
    if (system.accepted + system.rejected != 0) {
      out << system.accepted << " / " << system.rejected;
    }
    const auto bounds = BoundsOf(system);
    out << "</td>" << Cells(ErrorsOf(system)) << "<td>"
        << (bounds.empty() ? "–" : std::to_string(PercentilesOf(bounds).p50)) << "</td>";
    std::vector<std::int64_t> late;
    for (const auto& start : data.starts) {
      if (const auto value = start.late.find(system.address); value != start.late.end()) {
        late.push_back(value->second);
      }
    }
    out << "<td>" << late.size() << "</td>";
    if (late.empty()) {
      out << "<td>–</td><td>–</td>";
    } else {
      const auto [earliest, latest] = std::minmax_element(late.begin(), late.end());
      out << std::showpos << "<td>" << *earliest << "</td><td>" << *latest << std::noshowpos << "</td>";
    }
    out << "</tr>\n";
  }
  out << "</tbody></table></div>";
  return out.str();
}

std::string Log(const Report_Data& data) {
  if (data.notes.empty()) {
    return {};
  }
  std::ostringstream out;
  out << "<details" << (data.failures != 0 ? " open" : "") << "><summary>What happened</summary><ol class=\"log\">\n";
  out << std::fixed << std::setprecision(3);
  std::size_t count = 0;
  for (const auto& note : data.notes) {
    if (++count > kMostNotesShown && !note.isFailure) {
      continue;
    }
    out << "<li" << (note.isFailure ? " class=\"bad\"" : "") << "><time>" << std::setw(9) << Seconds(data, note.time)
        << " s</time>" << (note.isFailure ? "FAILED: " : "") << Escaped(note.text) << "</li>\n";
  }
  out << "</ol>";
  if (data.notes.size() > kMostNotesShown) {
    out << "<p>Of the later ones failures only.</p>";
  }
  out << "</details>";
  return out.str();
}

} // namespace

void Report_WritePage(std::ostream& out, const Report_Data& data) {
  const std::map<std::string_view, std::string> fillings = {
      {"TITLE", Escaped(data.title)},
      {"SUBTITLE", Escaped(data.subtitle)},
      {"TILES", Tiles(data)},
      {"SUMMARY", SummaryTable(data)},
      {"LOG", Log(data)},
      {"FOOTER", "Made by trel " TREL_VERSION ". Everything is in this file; it loads nothing."},
      {"DATA", DataText(data)},
  };
  std::string_view rest = kReport_Template;
  while (!rest.empty()) {
    const std::size_t begin = rest.find('@');
    out << rest.substr(0, begin);
    if (begin == std::string_view::npos) {
      return;
    }
    rest.remove_prefix(begin + 1);
    const auto filling = fillings.find(rest.substr(0, rest.find('@')));
    if (filling == fillings.end()) { // as in a style sheet's @media
      out << '@';
      continue;
    }
    out << filling->second;
    rest.remove_prefix(filling->first.size() + 1);
  }
}

void Report_WritePageTo(const std::string& file, const Report_Data& data) {
  Output_File out(file);
  Report_WritePage(out, data);
  out.Close();
}
