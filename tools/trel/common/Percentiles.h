#pragma once

#include <cstdint>
#include <vector>

// Figures of measurements, in their unit. None takes an empty list.

struct Percentiles {
  std::int64_t p50 = 0;
  std::int64_t p99 = 0;
  std::int64_t max = 0;
};

/// By nearest rank: each is one of the values.
Percentiles PercentilesOf(std::vector<std::int64_t> values);

/// Greatest minus least.
std::int64_t SpreadOf(const std::vector<std::int64_t>& values);
