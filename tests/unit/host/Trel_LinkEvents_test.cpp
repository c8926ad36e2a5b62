#include "link/host/Trel_LinkEvents.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>

namespace {

TEST(Trel_LinkEvents, WhatIsLeftOutOfASystemThatSaysTooMuchIsCounted) {
  using Kind = Trel_LinkEvent::Kind;
  constexpr std::int64_t kStorm = 5'000;
  std::promise<void> stormIsOver, allIsTold;
  std::int64_t told = 0, leftOut = 0, others = 0;
  bool hasLeft = false;
  Trel_LinkEvents events([&](const Trel_LinkEvent& event) {
    if (event.system.address == 2) {
      ++others;
      stormIsOver.get_future().wait(); // a host that takes its time
      return;
    }
    told += event.kind == Kind::soloed ? 1 : 0;
    leftOut += event.kind == Kind::leftOut ? event.value : 0;
    hasLeft = hasLeft || event.kind == Kind::left;
    EXPECT_EQ(event.system.name, "One");
    if (told + leftOut == kStorm && hasLeft) {
      allIsTold.set_value();
    }
  });
  events.Start();
  events.Tell({.kind = Kind::soloed, .system = {.address = 2}});
  for (std::int64_t event = 0; event < kStorm; ++event) {
    events.Tell({.kind = Kind::soloed, .system = {.address = 1, .name = "One"}});
  }
  events.Tell({.kind = Kind::left, .system = {.address = 1, .name = "One"}});
  stormIsOver.set_value();
  EXPECT_EQ(allIsTold.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
  events.Stop();
  EXPECT_EQ(told, 512);
  EXPECT_EQ(others, 1);
}

} // namespace
