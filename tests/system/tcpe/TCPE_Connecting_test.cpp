#include "tests/support/TestSystem.h"

#include <trel/TCPE_Cmd_Disconnect.h>

#include <barrier>
#include <future>

namespace {

TEST(TCPE_Connecting, IsKnownBeforeTheHandlersRunAndGoneBeforeTheyDo) {
  constexpr std::size_t kQueued = 100;
  std::atomic<std::size_t> handled = 0;
  TestSystem a(0), b(1);
  b.handler = [&](const std::string& text, std::uint32_t from) {
    if (text == "Connect" || text == "Disconnect") {
      EXPECT_EQ(b.IsConnected(from), text == "Connect");
      EXPECT_EQ(b.GetConnectedAddresses().contains(from), text == "Connect");
    }
    ++handled;
  };
  Start(a, b);
  const std::uint32_t address = b.Address();
  TCPE_Cmd_Disconnect command(a.GetLocalSystem(), 19); // another command's number
  for (const bool byCommand : {false, true}) {
    SCOPED_TRACE(byCommand);
    const std::size_t before = handled;
    ASSERT_TRUE(a.Connect(address) && a.IsConnected(address));
    EXPECT_TRUE(a.Connect(address) && b.Connect(a.Address()));
    EXPECT_TRUE(Eventually([&] { return handled == before + 1; }));
    for (std::size_t i = 0; i < kQueued; ++i) {
      a.SendTime(1, address);
    }
    EXPECT_TRUE(byCommand ? a.Send(command, address) == eTCPE_CommErr_None : a.Disconnect(address));
    EXPECT_FALSE(a.IsConnected(address) || a.Disconnect(address));
    EXPECT_TRUE(a.GetConnectedAddresses().empty());
    EXPECT_TRUE(Eventually([&] { return handled == before + kQueued + 2; }));
    EXPECT_EQ(b.From(a.Address()).back(), "Disconnect");
  }
  EXPECT_TRUE(a.From(b.Address()).empty());
  EXPECT_EQ(b.Count("error"), 0);
}

TEST(TCPE_Connecting, FromBothSidesAtOnceGivesOneConnection) {
  constexpr int kRounds = 200;
  TestSystem a(0), b(1);
  Start(a, b);
  std::barrier together(2);
  const auto side = [&together](TestSystem& from, const TestSystem& to, int* good) {
    for (int round = 0; round < kRounds; ++round) {
      together.arrive_and_wait();
      *good += from.Connect(to.Address()) && from.IsConnected(to.Address()) ? 1 : 0;
      together.arrive_and_wait();
      *good += from.Query(to.Address()) == eTCPE_CommErr_None ? 1 : 0;
      together.arrive_and_wait();
      if (round % 2 == 0 || from.Address() < to.Address()) { // both at once in one round, one alone in the next
        from.Disconnect(to.Address());
      }
      EXPECT_TRUE(Eventually([&] { return !from.IsConnected(to.Address()); }));
    }
  };
  int goodA = 0;
  int goodB = 0;
  std::jthread other(side, std::ref(b), std::cref(a), &goodB);
  side(a, b, &goodA);
  other.join();
  EXPECT_EQ(goodA, 2 * kRounds);
  EXPECT_EQ(goodB, 2 * kRounds);
  EXPECT_TRUE(Eventually([&] { return a.Count("Connect") + b.Count("Connect") == kRounds; }));
  EXPECT_EQ(a.Count("error") + b.Count("error"), 0);
}

TEST(TCPE_Connecting, TrueMeansConnectedWhileAnotherThreadConnectsAndDisconnects) {
  constexpr int kRounds = 1000;
  TestSystem a(0), b(1);
  Start(a, b);
  const std::uint32_t address = b.Address();
  for (int round = 0; round < kRounds; ++round) {
    for (const bool connects : {true, false}) {
      SCOPED_TRACE(std::to_string(round) + (connects ? " connects" : " disconnects"));
      auto other =
          std::async(std::launch::async, [&] { return connects ? a.Connect(address) : a.Disconnect(address); });
      const std::int64_t begin = Sys_Clock::RawMicroseconds();
      while (a.IsConnected(address) != connects) { // without a sleep: as soon as it is so
        ASSERT_LT(Sys_Clock::RawMicroseconds(), begin + 10'000'000);
        std::this_thread::yield();
      }
      EXPECT_EQ(a.Disconnect(address), connects);
      ASSERT_TRUE(a.Connect(address) && a.IsConnected(address));
      EXPECT_TRUE(other.get());
    }
    EXPECT_TRUE(a.Disconnect(address));
  }
  EXPECT_EQ(a.Count("error") + b.Count("error"), 0);
}

TEST(TCPE_Connecting, CanBeEndedAndBegunAgainUnderTraffic) {
  constexpr std::size_t kRounds = 200;
  std::atomic<int> arrived = 0;
  TestSystem a(0), b(1);
  a.inPlace = [&](const std::string&, std::uint32_t) { return ++arrived != 0; };
  Start(a, b);
  // Sends from the first moment on, before the peer can know that it is admitted, to the last and beyond.
  std::jthread traffic([&](const std::stop_token& ends) {
    while (!ends.stop_requested()) {
      b.SendTime(1, a.Address());
    }
  });
  for (std::size_t round = 0; round < kRounds; ++round) {
    ASSERT_TRUE(a.Connect(b.Address())) << round;
    const int before = arrived;
    EXPECT_TRUE(Eventually([&] { return arrived > before; })) << round;
    EXPECT_TRUE(a.Disconnect(b.Address())) << round;
  }
  EXPECT_TRUE(Eventually([&] { return b.From(a.Address()).size() == 2 * kRounds; }));
  const std::vector<std::string> texts = b.From(a.Address());
  for (std::size_t i = 0; i < texts.size(); ++i) {
    EXPECT_EQ(texts[i], i % 2 == 0 ? "Connect" : "Disconnect") << i;
  }
  EXPECT_TRUE(a.From(b.Address()).empty());
}

} // namespace
