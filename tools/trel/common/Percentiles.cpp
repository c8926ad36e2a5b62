#include "tools/trel/common/Percentiles.h"

#include <algorithm>
#include <cstddef>

namespace {

std::int64_t NearestRank(const std::vector<std::int64_t>& sorted, std::size_t percent) {
  return sorted[(sorted.size() * percent + 99) / 100 - 1];
}

} // namespace

Percentiles PercentilesOf(std::vector<std::int64_t> values) {
  std::sort(values.begin(), values.end());
  return {NearestRank(values, 50), NearestRank(values, 99), values.back()};
}

std::int64_t SpreadOf(const std::vector<std::int64_t>& values) {
  const auto [least, greatest] = std::minmax_element(values.begin(), values.end());
  return *greatest - *least;
}
