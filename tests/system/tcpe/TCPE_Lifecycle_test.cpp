#include "tests/support/ReportCollector.h"
#include "tests/support/TestSystem.h"

#include <trel/Sys_UDPSocket.h>

#include <fcntl.h>
#include <latch>
#include <numeric>

namespace {

constexpr std::int64_t kTerminateLimit = 1'000'000; // us

std::int64_t TimeToTerminate(TestSystem& system) {
  const std::int64_t begin = Sys_Clock::RawMicroseconds();
  system.Terminate();
  return Sys_Clock::RawMicroseconds() - begin;
}

TEST(TCPE_Lifecycle, TerminatesWithCallsInFlightAndStartsAgain) {
  TestSystem a(0), b(1);
  for (TestSystem* system : {&a, &b}) {
    system->handler = [system](const std::string& text, std::uint32_t from) {
      if (text == "GetState") {
        system->Send(Trel_Cmd_GetPositionRunningTimeCorrelation(), from);
      }
    };
  }
  ASSERT_EQ(b.Start(), 0);
  std::atomic<std::int64_t> answered = 0;
  std::atomic<std::int64_t> timedOut = 0;
  const auto hammer = [&](const std::stop_token& ends, TestSystem& from, std::uint32_t to, bool connects) {
    while (!ends.stop_requested()) {
      if (connects && !from.Connect(to)) {
        std::this_thread::yield();
      }
      from.SendTime(1, to);
      const TCPE_CommErr error = from.Query(to);
      answered += error == eTCPE_CommErr_None ? 1 : 0;
      timedOut += error == eTCPE_CommErr_TimedOut ? 1 : 0;
    }
  };
  std::int64_t worst = 0;
  {
    std::vector<std::jthread> threads;
    for (const bool connects : {true, true, false}) {
      threads.emplace_back(hammer, std::ref(a), b.Address(), connects);
      threads.emplace_back(hammer, std::ref(b), a.Address(), connects);
    }
    for (int i = 0; i < 100; ++i) {
      ASSERT_EQ(a.Start(), 0) << i;
      const std::int64_t before = answered;
      EXPECT_TRUE(Eventually([&] { return answered > before + 10; })) << i;
      worst = std::max(worst, TimeToTerminate(a));
      EXPECT_FALSE(a.IsInitialized() || a.IsConnected(b.Address()) || !a.GetConnectedAddresses().empty());
    }
  }
  ExpectWithin("worst Terminate among 100, us", worst, kTerminateLimit);
  EXPECT_EQ(timedOut, 0);
}

TEST(TCPE_Lifecycle, WhatIsSetWhileItStartsIsInForce) {
  constexpr auto kType = static_cast<ETCPE_SystemType>(77);
  bool isSetInTime = true;
  for (int moment = 0; isSetInTime; ++moment) {
    SCOPED_TRACE(moment);
    std::atomic<int> calls = 0;
    TestSystem a(0), b(1);
    a.beforeVersion = [&] {
      if (calls++ == moment) {
        a.SetSystemType(kType);
        a.SetHostPumpedDelivery(true);
      }
    };
    ASSERT_EQ(a.Start(), 0);
    isSetInTime = calls > moment;
    if (isSetInTime) {
      ASSERT_EQ(b.Start(), 0);
      ASSERT_TRUE(b.Connect(a.Address()));
      EXPECT_EQ(b.GetSnapshot().peers.at(0).systemType, kType);
      EXPECT_TRUE(Eventually([&] { return a.TakeCommand() != nullptr; }));
    } else {
      EXPECT_GT(moment, 2);
    }
  }
}

TEST(TCPE_Lifecycle, NamesOfTwoSystemsMayBeAskedForByOneThread) {
  TestSystem a(0), b(1);
  a.SetSystemName("Stage");
  b.SetSystemName("Studio");
  const char* const name = a.GetSystemName();
  EXPECT_STREQ(b.GetSystemName(), "Studio");
  EXPECT_STREQ(name, "Stage");
}

TEST(TCPE_Lifecycle, AHandlerThatDoesNotEndIsLeftBehindAndHindersNoNewStart) {
  ReportCollector reports;
  std::latch hold(1);
  std::latch hasEnded(1);
  std::thread::id network;
  TestSystem a(0), b(1);
  a.inPlace = [&](const std::string&, std::uint32_t) { return (network = std::this_thread::get_id(), false); };
  a.handler = [&](const std::string& text, std::uint32_t) {
    if (text == "GetState") {
      hold.wait();
      EXPECT_NE(a.Query(b.Address()), eTCPE_CommErr_None);
      hasEnded.count_down();
    }
  };
  Link(b, a);
  std::jthread waiting([&] { EXPECT_EQ(b.Query(a.Address()), eTCPE_CommErr_ConnectionLost); });
  EXPECT_TRUE(Eventually([&] { return a.Count("GetState") == 1; }));
  {
    // Whoever gets the number of the network thread when that has ended is not taken for it.
    const std::jthread heirs([&](const std::stop_token& ends) {
      while (!ends.stop_requested()) {
        std::vector<std::jthread> some(16);
        for (std::jthread& each : some) {
          each = std::jthread([&] { std::this_thread::get_id() == network ? a.Terminate() : void(); });
        }
      }
    });
    ExpectWithin("Terminate with a handler that does not end, us", TimeToTerminate(a), kTerminateLimit);
  }
  EXPECT_EQ(reports.Take().size(), 0U);
  EXPECT_EQ(a.Start(), 0);
  hold.count_down();
  hasEnded.wait();
  waiting.join();
  EXPECT_EQ(b.Count("error"), 0);
}

TEST(TCPE_Lifecycle, ProgramsThatTheHostStartsInheritNothing) {
  const auto countInherited = [] {
    std::vector<int> descriptors(1024);
    std::iota(descriptors.begin(), descriptors.end(), 0);
    return std::count_if(descriptors.begin(), descriptors.end(), [](int each) { return fcntl(each, F_GETFD) == 0; });
  };
  const auto before = countInherited();
  TestSystem a(0), b(1);
  Link(a, b);
  Sys_UDPSocket query;
  EXPECT_TRUE(query.Register());
  EXPECT_EQ(countInherited(), before);
}

TEST(TCPE_Lifecycle, OwnThreadsCannotTerminate) {
  ReportCollector reports;
  std::atomic<int> calls = 0;
  TestSystem a(0), b(1);
  const auto terminate = [&](const std::string&, std::uint32_t) { return a.Terminate(), ++calls != 0; };
  a.handler = terminate;
  a.inPlace = [&](const std::string& text, std::uint32_t from) { return text == "GetState" && terminate(text, from); };
  Link(b, a);
  EXPECT_EQ(b.Query(a.Address()), eTCPE_CommErr_None);
  a.NetworkErrorOccured(eNetworkError_ConnectionLost, 0x7f000030);
  EXPECT_TRUE(Eventually([&] { return calls == 3; })); // for the connect command, in place, and for the network error
  EXPECT_EQ(reports.Take().size(), 3U);
  EXPECT_TRUE(a.IsInitialized() && a.IsConnected(b.Address()));
  a.Terminate();
  EXPECT_FALSE(a.IsInitialized());
}

TEST(TCPE_Lifecycle, TheFirstHandlerFindsTheEngineInForceAndTheLastFarewellIsSaid) {
  std::atomic<int> good = 0;
  TestSystem a(0), b(1);
  a.handler = [&](const std::string&, std::uint32_t from) {
    good += a.IsInitialized() && a.IsConnected(from) && a.SendTime(1, from) == eTCPE_CommErr_None ? 1 : 0;
  };
  ASSERT_EQ(b.Start(), 0);
  std::jthread connecting([&](const std::stop_token& ends) {
    while (!ends.stop_requested()) {
      b.Connect(a.Address());
    }
  });
  for (int i = 1; i <= 100; ++i) {
    ASSERT_EQ(a.Start(), 0);
    ASSERT_TRUE(Eventually([&] { return good == i && b.Count("TestRunningTime 1") == i; })) << i;
    a.Terminate();
    EXPECT_TRUE(Eventually([&] { return !b.IsConnected(a.Address()); }));
  }
  EXPECT_EQ(b.Count("error"), 0);
}

TEST(TCPE_Lifecycle, TerminateWaitsForTheFarewellOfADisconnect) {
  constexpr std::int64_t kLongestFarewell = 50'000; // us
  std::latch begun(1);
  TestSystem a(0), b(1);
  a.beforeSending = [&](const TCPE_Command& command) {
    if (command.GetCommandName() == std::string("Disconnect")) {
      begun.count_down();
      const std::int64_t end = Sys_Clock::RawMicroseconds() + kLongestFarewell;
      while (b.IsConnected(a.Address()) && Sys_Clock::RawMicroseconds() < end) {
        std::this_thread::yield();
      }
    }
  };
  Link(a, b);
  std::jthread disconnecting([&] { EXPECT_TRUE(a.Disconnect(b.Address())); });
  begun.wait();
  a.Terminate();
  EXPECT_TRUE(Eventually([&] { return b.From(a.Address()).size() == 2; }));
  EXPECT_EQ(b.From(a.Address()).back(), "Disconnect");
}

} // namespace
