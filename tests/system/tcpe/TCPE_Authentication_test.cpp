#include "tests/support/SharedSecretFile.h"
#include "tests/support/TestSystem.h"

namespace {

TEST(TCPE_Authentication, CommandsOfManyThreadsArriveInBothDirections) {
  constexpr int kThreads = 4;
  constexpr int kCommands = 500;
  const SharedSecretFile file{};
  file.Set('1');
  std::atomic<int> failures = 0;
  TestSystem a(0), b(1);
  b.handler = [&](const std::string& text, std::uint32_t from) { // sends before the peer has its answer, perhaps
    if (text == "Connect") { // and only then: the last ones may run at the end of the test
      failures += b.SendTime(-1, from) != eTCPE_CommErr_None ? 1 : 0;
    }
  };
  Link(a, b);
  {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
      for (TestSystem* from : {&a, &b}) {
        threads.emplace_back([&, from, to = from == &a ? b.Address() : a.Address()] {
          for (int i = 0; i < kCommands; ++i) {
            failures += from->SendTime(i, to) != eTCPE_CommErr_None ? 1 : 0;
            failures += i % 10 == 0 && from->Query(to) != eTCPE_CommErr_None ? 1 : 0;
          }
        });
      }
    }
  }
  EXPECT_EQ(failures, 0);
  const auto arrivedAt = [](const TestSystem& system) { return system.Count("TestRunningTime"); };
  EXPECT_TRUE(Eventually([&] { return arrivedAt(a) + arrivedAt(b) == 2 * kThreads * kCommands + 1; }));
  EXPECT_EQ(a.Count("error") + b.Count("error"), 0);
  EXPECT_EQ(a.GetCounters().wrongTags + b.GetCounters().wrongTags, 0U);
}

} // namespace
