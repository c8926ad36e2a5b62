#include "tools/trel/common/ClockFields.h"

#include <nlohmann/json.hpp>

#include <type_traits>

const char* ClockText(ETrel_ClockState state) { return Trel_ClockStatus{.state = state}.GetStateText(); }

const char* ClockText(ETrel_ClockReason reason) { return Trel_ClockStatus{.reason = reason}.GetReasonText(); }

nlohmann::json ClockFields(const Trel_ClockStatus& status) {
  nlohmann::json fields;
  VisitClockFields(status, [&fields](const char* name, auto value, bool isKnown) {
    if constexpr (std::is_enum_v<decltype(value)>) {
      fields[name] = ClockText(value);
    } else if (isKnown) {
      fields[name] = value;
    }
  });
  return fields;
}
