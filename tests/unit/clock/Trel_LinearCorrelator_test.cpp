#include <trel/Trel_LinearCorrelator.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr std::int64_t kUndefined = std::numeric_limits<std::int64_t>::min();

using Points = std::vector<std::pair<std::int64_t, std::int64_t>>;

TEST(Trel_LinearCorrelator, PredictsAndLocksAsTheFitSays) {
  const struct {
    const char* name;
    Points points;
    std::int64_t local;
    std::int64_t remote;
    std::int64_t localOfRemote;
    bool locked;
  } cases[] = {
      {"fresh: the identity", {}, 7, 7, 7, false},
      {"fresh: a negative result is not rounded down", {}, -5, -4, -3, false},
      {"one measurement: a pure offset", {{10, 1010}}, 20, 1020, 20, false},
      {"half up", {{0, 0}, {2, 1}}, 1, 1, 2, false},
      {"three on a line", {{0, 5}, {1, 8}, {2, 11}}, 10, 35, 10, false},
      {"four on a line", {{0, 5}, {1, 8}, {2, 11}, {3, 14}}, 10, 35, 10, true},
      {"four on a falling line", {{0, 5}, {1, 2}, {2, -1}, {3, -4}}, 1, 2, 1, false},
      {"equal local times", {{5, 1}, {5, 2}, {5, 3}, {5, 4}}, 5, kUndefined, kUndefined, false},
      {"equal remote times", {{1, 5}, {2, 5}, {3, 5}, {4, 5}}, 9, 5, kUndefined, false},
      {"r exactly 0.995", {{0, 0}, {1, 464}, {2, 793}, {3, 1112}, {4, 1666}}, 2, 807, 2, false},
      {"r just above 0.995", {{0, 0}, {1, 464}, {2, 794}, {3, 1112}, {4, 1666}}, 2, 807, 2, true},
  };
  for (const auto& test : cases) {
    Trel_LinearCorrelator correlator(25);
    for (const auto& [local, remote] : test.points) {
      correlator.AddMeasurement(local, remote);
    }
    EXPECT_EQ(correlator.PredictRemote(test.local), test.remote) << test.name;
    EXPECT_EQ(correlator.PredictLocal(test.remote), test.localOfRemote) << test.name;
    EXPECT_EQ(correlator.IsCorrelated(), test.locked) << test.name;
  }
}

// Both clocks have run for a year, where the squares need 90 bits and their differences a few dozen.
TEST(Trel_LinearCorrelator, LineIsExactAfterAYear) {
  constexpr std::int64_t kYear = 32'000'000'000'000;
  constexpr std::int64_t kDay = 86'400'000'000;
  constexpr std::int64_t kUnit = 20'000; // 50 ppm of it are one microsecond
  for (const std::int64_t spacing : {20'000, 100'000, 500'000}) {
    for (const std::int64_t drift : {-1, 1}) {
      for (const std::int64_t firstRemote : {kYear + 123'457, std::int64_t{10'000'000}}) {
        Trel_LinearCorrelator correlator(25);
        const auto remoteAt = [&](std::int64_t local) {
          const std::int64_t elapsed = local - kYear;
          return firstRemote + elapsed + drift * (elapsed / kUnit);
        };
        std::int64_t worst = 0;
        std::int64_t local = kYear;
        for (int addition = 1; addition <= 10'050; ++addition) {
          correlator.AddMeasurement(local, remoteAt(local));
          for (const std::int64_t ahead : {-10 * spacing, std::int64_t{0}, 50 * kUnit, kDay}) {
            if (addition >= 2) {
              const std::int64_t remote = remoteAt(local + ahead);
              worst = std::max(worst, std::abs(correlator.PredictRemote(local + ahead) - remote));
              worst = std::max(worst, std::abs(correlator.PredictLocal(remote) - (local + ahead)));
            }
          }
          local += addition == 10'000 ? kDay : spacing;
        }
        EXPECT_EQ(worst, 0) << "spacing " << spacing << ", drift " << drift << ", first remote " << firstRemote;
        EXPECT_TRUE(correlator.IsCorrelated());
      }
    }
  }
}

TEST(Trel_LinearCorrelator, KeepsNoMoreThanItsCapacity) {
  const struct {
    std::int64_t capacity;
    int outliers;
    int followers;
  } cases[] = {{25, 1, 25}, {25, 3, 25}, {4, 9, 4}, {1, 1, 1}, {0, 1, 1}, {0, 8, 1}, {-10, 8, 1}};
  for (const auto& test : cases) {
    Trel_LinearCorrelator correlator(test.capacity);
    for (int i = 0; i < test.outliers; ++i) {
      correlator.AddMeasurement(i, -1'000'000 * i - 5);
    }
    for (int i = 0; i < test.followers; ++i) {
      correlator.AddMeasurement(1'000 + i, 3'000 + i);
    }
    EXPECT_EQ(correlator.PredictRemote(2'000), 4'000) << test.capacity;
    EXPECT_EQ(correlator.IsCorrelated(), test.capacity >= 4) << test.capacity;
  }
}

} // namespace
