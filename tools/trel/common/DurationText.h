#pragma once

#include <cstdint>
#include <string>

/// Microseconds for people, with the unit that suits them: "41 us", "2.3 ms", "12 ms", "12.0 s", "5 min", "3.1 h".
std::string DurationText(std::int64_t microseconds);
