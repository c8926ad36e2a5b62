#include "Demo_Statistics.h"

#include <algorithm>
#include <cstddef>

namespace {

std::int64_t NearestRank(const std::vector<std::int64_t>& sorted, std::size_t percent) {
  return sorted[(sorted.size() * percent + 99) / 100 - 1];
}

} // namespace

Demo_Percentiles Demo_PercentilesOf(std::vector<std::int64_t> values) {
  std::sort(values.begin(), values.end());
  return {NearestRank(values, 50), NearestRank(values, 99), values.back()};
}

std::int64_t Demo_SpreadOf(const std::vector<std::int64_t>& values) {
  const auto [least, greatest] = std::minmax_element(values.begin(), values.end());
  return *greatest - *least;
}
