#pragma once

#include <trel/TCPE_CommManager.h>

#include <gtest/gtest.h>

/// Runs each test in the current numbering (parameter true) and in the legacy one.
class NumberingTest : public testing::TestWithParam<bool> {
protected:
  void SetUp() override {
    TCPE_CommManager::SetSupportsMarlo11(GetParam());
    ASSERT_EQ(TCPE_CommManager::GetSupportsMarlo11(), GetParam());
  }
  void TearDown() override { TCPE_CommManager::SetSupportsMarlo11(mNumberingBefore); }

  static bool IsCurrent() { return GetParam(); }

private:
  bool mNumberingBefore = TCPE_CommManager::GetSupportsMarlo11();
};

#define INSTANTIATE_NUMBERING_TESTS(Fixture)                                                                           \
  INSTANTIATE_TEST_SUITE_P(Numberings, Fixture, testing::Bool(),                                                       \
                           [](const auto& numbering) { return numbering.param ? "Current" : "Legacy"; })
