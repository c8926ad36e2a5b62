#pragma once

#include <cstdint>

// Microseconds.
inline constexpr std::int64_t kMillisecond = 1'000;
inline constexpr std::int64_t kSecond = 1'000'000;
