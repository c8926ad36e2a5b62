#pragma once

#include <nlohmann/json.hpp>

struct Trel_ClockStatus;

/// What a recording keeps of a clock: the fields of its event "clock". What is not known is left out.
nlohmann::json Report_ClockFields(const Trel_ClockStatus& status);
