#include "tools/trel/host/Host_Throttle.h"

#include <gtest/gtest.h>

#include <string>

namespace {

Host_Event Change(const std::string& kind, const std::string& address, int value) {
  return {.kind = kind, .fields = {{"address", address}, {"name", "One"}, {"value", value}}};
}

TEST(Host_Throttle, TellsOfAStormTheNewestOfEachKindOnceASecond) {
  Host_Throttle throttle;
  Host_Throttle::Events told;
  std::int64_t now = 0;
  constexpr int kStorm = 50'000; // in two seconds
  for (int value = 1; value <= kStorm; ++value, now += 39) {
    throttle.Take(Change(value % 2 == 0 ? "solo" : "record", "10.0.0.1", value), now, told);
  }
  EXPECT_LE(told.size(), 2 * Host_Throttle::kMostOfOneSystem + 3);
  throttle.Take(Change("solo", "10.0.0.2", 1), now, told); // of another one
  EXPECT_EQ(told.back().fields["address"], "10.0.0.2");
  constexpr int kBefore = 700; // left out before they came here
  Host_Event leftOut = Change("left_out", "10.0.0.1", 0);
  leftOut.fields["count"] = kBefore;
  throttle.Take(leftOut, now, told);
  Host_Event answer = Change("answer", "10.0.0.1", 1);
  answer.isAnswer = true;
  throttle.Take(answer, now, told);
  EXPECT_TRUE(told.back().isAnswer);

  const std::size_t before = told.size();
  EXPECT_LE(throttle.NextRelease(), now + 1'000'000);
  throttle.Release(throttle.NextRelease(), told);
  ASSERT_EQ(told.size(), before + 3);
  EXPECT_EQ(told[before].fields["value"], kStorm - 1);
  EXPECT_EQ(told[before + 1].fields["value"], kStorm);
  EXPECT_EQ(told[before + 1].kind, "solo");
  EXPECT_EQ(told[before + 2].kind, "left_out");
  std::int64_t all = 0;
  for (const Host_Event& event : told) {
    const bool isChange = event.kind != "left_out" && !event.isAnswer && event.fields["address"] == "10.0.0.1";
    all += isChange ? 1 : event.kind == "left_out" ? event.fields["count"].get<std::int64_t>() : 0;
  }
  EXPECT_EQ(all, kStorm + kBefore);

  while (throttle.NextRelease() != Host_Throttle::kNever) {
    throttle.Release(throttle.NextRelease(), told);
  }
  EXPECT_EQ(told.size(), before + 3);
}

} // namespace
