#pragma once

#include <cstdint>
#include <vector>

// Figures of the demonstration, microseconds. None takes an empty list.

struct Demo_Percentiles {
  std::int64_t p50 = 0;
  std::int64_t p99 = 0;
  std::int64_t max = 0;
};

/// By nearest rank: each is one of the values.
Demo_Percentiles Demo_PercentilesOf(std::vector<std::int64_t> values);

/// Greatest minus least.
std::int64_t Demo_SpreadOf(const std::vector<std::int64_t>& values);
