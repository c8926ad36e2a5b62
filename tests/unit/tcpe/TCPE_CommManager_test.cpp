#include <trel/TCPE_CommManager.h>

#include <gtest/gtest.h>

namespace {

TEST(TCPE_CommManagerTest, EachManagerGivesItsOwnName) {
  TCPE_CommManager managers[2];
  managers[0].SetSystemName("stage");
  const char* const name = managers[0].GetSystemName();
  EXPECT_STREQ(managers[1].GetSystemName(), "");
  EXPECT_STREQ(name, "stage");
}

} // namespace
