#include "tools/trel/common/DurationText.h"

#include <array>
#include <iomanip>
#include <sstream>

namespace {

struct Unit {
  double size; // microseconds
  double end;  // of the values that it is used for, in units
  int decimals;
  const char* name;
};

constexpr double kMilliseconds = 1e3;
constexpr std::array kUnits = {Unit{1, 1000, 0, " us"}, Unit{kMilliseconds, 1000, 1, " ms"}, Unit{1e6, 120, 1, " s"},
                               Unit{6e7, 120, 0, " min"}};
constexpr Unit kLargest{3.6e9, 0, 1, " h"};

} // namespace

std::string DurationText(std::int64_t microseconds) {
  const auto value = static_cast<double>(microseconds < 0 ? -microseconds : microseconds);
  Unit unit = kLargest;
  for (const Unit& candidate : kUnits) {
    if (value / candidate.size < candidate.end) {
      unit = candidate;
      break;
    }
  }
  std::ostringstream text;
  constexpr double kFewDigits = 10; // from there on milliseconds have digits enough
  const bool isWhole = unit.decimals == 0 || (unit.size == kMilliseconds && value / unit.size >= kFewDigits);
  text << (microseconds < 0 ? "-" : "") << std::fixed << std::setprecision(isWhole ? 0 : 1) << value / unit.size
       << unit.name;
  return text.str();
}
