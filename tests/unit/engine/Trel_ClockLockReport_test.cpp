#include "link/engine/Trel_ClockLockReport.h"

#include <gmock/gmock.h>

#include <stdexcept>
#include <utility>
#include <vector>

namespace {

using Told = std::vector<std::pair<bool, std::uint32_t>>;

TEST(Trel_ClockLockReportTest, TellsEverybodyWhenTheLockOrAConnectionIsNew) {
  Trel_ClockLockReport report;
  const struct {
    std::optional<Trel_ClockLockReport::State> state;
    bool forgets;
    Told told;
  } steps[] = {
      {{{false, {}}}, false, {}},
      {{{false, {{2, 1}}}}, false, {{false, 2}}},
      {{{false, {{2, 1}}}}, false, {}},
      {{{true, {{2, 1}}}}, false, {{true, 2}}},
      {{{true, {{2, 1}, {1, 2}}}}, false, {{true, 1}, {true, 2}}},
      {{{true, {{2, 3}, {1, 2}}}}, false, {{true, 1}, {true, 2}}}, // left and came back
      {std::nullopt, false, {}},
      {{{true, {{2, 3}, {1, 2}}}}, false, {}},
      {{{true, {{1, 2}}}}, false, {{true, 1}}},
      {{{true, {{1, 2}}}}, true, {{true, 1}}},
  };
  for (const auto& step : steps) {
    Told told;
    if (step.forgets) {
      report.Forget();
    }
    report.Run([&] { return step.state; }, [&](bool locked, std::uint32_t to) { told.emplace_back(locked, to); });
    EXPECT_EQ(told, step.told);
  }
}

TEST(Trel_ClockLockReportTest, TheLatestIsToldLastAlsoFromTwoThreads) {
  Trel_ClockLockReport report;
  Trel_ClockLockReport::State state{false, {{1, 1}, {2, 2}}};
  Told told;
  const auto look = [&state] { return std::optional(state); };
  report.Run(look, [&](bool locked, std::uint32_t to) {
    if (told.empty()) { // as another thread finds it
      state.isLocked = true;
      report.Run(look, [](bool, std::uint32_t) { FAIL(); });
    }
    told.emplace_back(locked, to);
  });
  EXPECT_EQ(told, (Told{{false, 1}, {false, 2}, {true, 1}, {true, 2}}));

  report.Forget();
  EXPECT_THROW(report.Run(look, [](bool, std::uint32_t) { throw std::runtime_error("no memory"); }),
               std::runtime_error);
  state.isLocked = false;
  report.Run(look, [&](bool locked, std::uint32_t to) { told.emplace_back(locked, to); });
  EXPECT_EQ(told.back(), std::pair(false, 2U));
}

} // namespace
