#include "tools/trel/catalogue/Catalogue_Names.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <numeric>
#include <utility>

namespace {

/// Letters to insert, remove or replace to make one text of the other.
std::size_t EditDistance(const std::string& from, const std::string& to) {
  std::vector<std::size_t> distances(to.size() + 1); // from the letters so far to each beginning of the other text
  std::iota(distances.begin(), distances.end(), std::size_t{0});
  for (std::size_t row = 0; row < from.size(); ++row) {
    std::size_t diagonal = std::exchange(distances[0], row + 1);
    for (std::size_t column = 0; column < to.size(); ++column) {
      const std::size_t replaced = diagonal + (from[row] == to[column] ? 0 : 1);
      diagonal = distances[column + 1];
      distances[column + 1] = std::min({replaced, diagonal + 1, distances[column] + 1});
    }
  }
  return distances.back();
}

} // namespace

std::string NearNamesText(const std::string& name, const std::vector<std::string>& names,
                          const std::string& otherwise) {
  constexpr std::size_t kMostNames = 5;
  constexpr std::size_t kShortestPart = 3;
  const std::string given = LowerCase(name);
  const std::size_t limit = std::max<std::size_t>(2, name.size() / 3);
  std::vector<std::pair<std::size_t, std::string>> near;
  for (const std::string& candidate : names) {
    const std::string lower = LowerCase(candidate);
    const std::size_t distance = EditDistance(given, lower);
    if (distance <= limit || (given.size() >= kShortestPart && lower.find(given) != std::string::npos)) {
      near.emplace_back(distance, candidate);
    }
  }
  if (near.empty()) {
    return otherwise;
  }
  std::stable_sort(near.begin(), near.end(),
                   [](const auto& left, const auto& right) { return left.first < right.first; });
  near.resize(std::min(near.size(), kMostNames));
  std::vector<std::string> nearest;
  nearest.reserve(near.size());
  for (auto& [distance, candidate] : near) {
    nearest.push_back(std::move(candidate));
  }
  return ", near ones: " + Joined(nearest);
}

std::string Joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    text += (text.empty() ? "" : ", ") + name;
  }
  return text;
}

std::string LowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  return text;
}
