#include "tests/support/NumberingTest.h"
#include "tests/support/RawPeer.h"
#include "tests/support/SharedSecretFile.h"

#include <future>
#include <latch>

namespace {

void Work(std::chrono::microseconds duration) {
  const std::int64_t end = Sys_Clock::RawMicroseconds() + duration.count();
  while (Sys_Clock::RawMicroseconds() < end) {
  }
}

/// The times that came are 0, 1, 2, ...
void ExpectUnbrokenBeginning(const TestSystem& system, std::uint32_t from, std::size_t atLeast = 0) {
  std::int64_t next = 0;
  for (const std::string& text : system.From(from)) {
    if (text.starts_with("TestRunningTime")) {
      ASSERT_EQ(text, "TestRunningTime " + std::to_string(next++));
    }
  }
  EXPECT_GE(next, static_cast<std::int64_t>(atLeast));
}

TEST(TCPE_Flow, ABurstToASlowHandlerIsHandledToTheLastAndDisturbsNobody) {
  constexpr std::int64_t kCommands = 5'000;
  TestSystem a(0), b(1), c(2);
  b.handler = [](const std::string& text, std::uint32_t) {
    text.starts_with("TestRunningTime") ? Work(std::chrono::microseconds(100)) : void();
  };
  b.inPlace = [&a](const std::string& text, std::uint32_t from) { return text == "GetState" && from == a.Address(); };
  c.inPlace = [](const std::string& text, std::uint32_t) { return text == "UpdateRunningTime"; };
  Link(a, b);
  ASSERT_EQ(c.Start(), 0);
  ASSERT_TRUE(c.Connect(b.Address()));
  RoundTrips inPlace(a, b.Address()), byHandler(c, b.Address());
  RoundTrips clock(b, c.Address(), Trel_Cmd_UpdateRunningTime(1));
  std::size_t most = 0;
  for (std::int64_t i = 0; i < kCommands; ++i) {
    ASSERT_EQ(a.SendTime(i, b.Address()), eTCPE_CommErr_None);
    most = i % 64 == 0 ? std::max(most, PeerOf(b, a.Address()).handlers.waiting) : most;
  }
  for (RoundTrips* trips : {&inPlace, &byHandler, &clock}) {
    trips->ExpectUndisturbed();
  }
  TCPE_PeerSnapshot sent;
  EXPECT_TRUE(Eventually([&] { return (sent = PeerOf(a, b.Address())).sentCommands.inFlight == 0; }));
  ExpectUnbrokenBeginning(b, a.Address(), static_cast<std::size_t>(kCommands));
  EXPECT_GT(most, TCPE_Limits{}.maxCommandsOut / 2);
  ExpectWithin("commands that waited", static_cast<std::int64_t>(most),
               static_cast<std::int64_t>(TCPE_Limits{}.maxCommandsOut));
  // Quiet: what one side sent is what the other one got, and all of it is finished.
  const TCPE_CommandCount received = PeerOf(b, a.Address()).receivedCommands;
  EXPECT_EQ(sent.sentCommands.commands, received.commands);
  EXPECT_EQ(sent.sentCommands.finished, received.commands);
  EXPECT_EQ(received.finished, received.commands);
  EXPECT_EQ(received.inFlight + received.refused + sent.sentCommands.refused + sent.sentCommands.abandoned, 0U);
  EXPECT_EQ(a.Count("error") + b.Count("error"), 0);
}

TEST(TCPE_Flow, AHandlerThatNeverReturnsEndsTheConnectionAtBothSides) {
  std::latch hold(1);
  TestSystem a(0), b(1);
  b.handler = [&](const std::string& text, std::uint32_t) { text == "TestRunningTime 10" ? hold.wait() : void(); };
  Link(a, b);
  std::int64_t sent = 0;
  std::int64_t began = 0;
  while (a.SendTime(sent, b.Address()) == eTCPE_CommErr_None) {
    ++sent;
    began = Sys_Clock::RawMicroseconds();
  }
  ExpectWithin("the sender waited at least, us", TCPE_Limits{}.tooSlow - 100'000, Sys_Clock::RawMicroseconds() - began);
  ExpectWithin("and at most, us", Sys_Clock::RawMicroseconds() - began, TCPE_Limits{}.tooSlow + 1'000'000);
  EXPECT_EQ(sent, 10 + static_cast<std::int64_t>(TCPE_Limits{}.maxCommandsOut));
  EXPECT_TRUE(Eventually([&] { return a.Count("error") == 1; }));
  EXPECT_EQ(a.Count(ErrorText(eNetworkError_PeerTooSlow)), 1);
  EXPECT_TRUE(Eventually([&] { return PeerOf(b, a.Address()).lastLoss == eNetworkError_PeerTooSlow; }))
      << "told while the handler hangs";
  EXPECT_EQ(PeerOf(a, b.Address()).sentCommands.abandoned, TCPE_Limits{}.maxCommandsOut);
  hold.count_down();
  EXPECT_TRUE(Eventually([&] { return b.Count(ErrorText(eNetworkError_PeerTooSlow)) == 1; }));
  ExpectUnbrokenBeginning(b, a.Address(), static_cast<std::size_t>(sent));
}

TEST(TCPE_Flow, APeerWithoutCreditsIsNotLimitedAndLosesNothing) {
  constexpr std::uint32_t kPeer = 0x7f000030;
  constexpr std::uint32_t kCommands = 2 * TCPE_Limits{}.maxCommandsOut;
  std::latch hold(1);
  TestSystem a(0);
  a.handler = [&](const std::string& text, std::uint32_t) { text == "TestRunningTime 0" ? hold.wait() : void(); };
  ASSERT_EQ(a.Start(), 0);
  RawPeer peer = RawPeer::Admitted(kPeer, a.Address());
  peer.Send(RawTime(0)); // and not what it has finished
  EXPECT_TRUE(Eventually([&] { return a.Count("TestRunningTime 0") == 1; }));
  const std::jthread flood([&peer] { // it takes no more than there is room for until the handler ends
    for (std::uint32_t i = 1; i < kCommands; ++i) {
      peer.Send(RawTime(i));
    }
  });
  const auto waiting = [&] { return PeerOf(a, kPeer).handlers.waiting; };
  EXPECT_TRUE(Eventually([&] { return waiting() > TCPE_Limits{}.maxQueuedCommands; }));
  for (std::uint32_t i = 0; i < kCommands; ++i) {
    ASSERT_EQ(a.SendTime(i, kPeer), eTCPE_CommErr_None);
  }
  constexpr std::size_t kBatch = 256;
  EXPECT_LE(waiting(), TCPE_Limits{}.maxQueuedCommands + kBatch);
  hold.count_down();
  for (std::uint32_t i = 0; i < kCommands; ++i) {
    ASSERT_EQ(peer.Read().type, eTrel_Cmd_TestRunningTime);
  }
  EXPECT_TRUE(Eventually([&] { return a.Count("TestRunningTime") == kCommands; }));
  ExpectUnbrokenBeginning(a, kPeer, kCommands);
  EXPECT_EQ(a.Count("error"), 0);
}

class TCPE_FlowNumberings : public NumberingTest {};
INSTANTIATE_NUMBERING_TESTS(TCPE_FlowNumberings);

TEST_P(TCPE_FlowNumberings, HandlersThatFloodAndQueryEachOtherGoOn) {
  constexpr std::int64_t kFlood = 2'000;
  const struct {
    bool isAuthenticated;
    std::size_t pumping; // of the two; both must not query each other on the threads that pump
  } cases[] = {{false, 0}, {false, 1}, {false, 2}, {true, 0}, {true, 1}, {true, 2}};
  for (const auto& test : cases) {
    SCOPED_TRACE(test.isAuthenticated ? "authenticated" : "without a secret");
    SCOPED_TRACE(test.pumping);
    std::optional<SharedSecretFile> file;
    if (test.isAuthenticated) {
      file.emplace().Set('1');
    }
    std::atomic<int> failures = 0;
    std::atomic<int> refused = 0; // of what a host answers on the thread that pumps
    TestSystem a(0), b(1);
    for (TestSystem* system : {&a, &b}) {
      const bool pumps = system == &b ? test.pumping > 0 : test.pumping > 1;
      system->SetHostPumpedDelivery(pumps);
      // Every command is answered with one, every fiftieth with a query too; the answers are worked on.
      system->handler = [&, system, pumps](const std::string& text, std::uint32_t from) {
        if (!text.starts_with("TestRunningTime")) {
          return;
        }
        const std::int64_t number = std::stoll(text.substr(text.find(' ')));
        Work(std::chrono::microseconds(20));
        if (number < kFlood) {
          const TCPE_CommErr error = system->SendTime(kFlood, from);
          const bool isRefused = pumps && error == eTCPE_CommErr_QueueFull;
          refused += isRefused ? 1 : 0;
          failures += !isRefused && error != eTCPE_CommErr_None ? 1 : 0;
        }
        if (number % 50 == 1 && test.pumping < 2) {
          failures += system->Query(from) != eTCPE_CommErr_None ? 1 : 0; // as it is when it takes 2 s
        }
      };
    }
    Link(a, b);
    std::vector<std::jthread> pumping;
    for (TestSystem* system : {&b, &a}) {
      if (pumping.size() < test.pumping) {
        pumping.emplace_back([system](const std::stop_token& ends) {
          while (!ends.stop_requested()) {
            system->Pump();
            std::this_thread::sleep_for(std::chrono::microseconds(100));
          }
        });
      }
    }
    const auto flood = [&](TestSystem& from, const TestSystem& to) {
      for (std::int64_t i = 0; i < kFlood; ++i) {
        failures += from.SendTime(i, to.Address()) != eTCPE_CommErr_None ? 1 : 0;
        failures += i % 500 == 0 && from.Query(to.Address()) != eTCPE_CommErr_None ? 1 : 0;
      }
    };
    auto other = std::async(std::launch::async, [&] { flood(b, a); });
    flood(a, b);
    other.get();
    const auto arrived = [&] { return a.Count("TestRunningTime") + b.Count("TestRunningTime"); };
    EXPECT_TRUE(Eventually([&] { return arrived() == 4 * kFlood - refused; }));
    EXPECT_EQ(failures + a.Count("error") + b.Count("error"), 0);
  }
}

TEST(TCPE_Flow, WhoWaitsIsWokenByWhateverEndsTheConnection) {
  constexpr std::uint32_t kPeer = 0x7f000030;
  const std::function<void(TestSystem & a, RawPeer & peer)> ends[] = {
      [](TestSystem& a, RawPeer&) { a.Terminate(); },
      [](TestSystem& a, RawPeer&) { a.Disconnect(kPeer); },
      [](TestSystem&, RawPeer& peer) { peer.Send(RawFrame({.type = kTCPE_CurrentTypes.disconnect})); },
      [](TestSystem&, RawPeer& peer) { peer.Close(); }, // as when its process is killed
      [](TestSystem&, RawPeer& peer) { peer.Reset(); },
  };
  std::int64_t worst = 0;
  for (std::size_t round = 0; round < 20 * std::size(ends); ++round) {
    TestSystem a(0);
    ASSERT_EQ(a.Start(), 0);
    RawPeer peer = RawPeer::Admitted(kPeer, a.Address());
    peer.Send(RawFrame({.type = kTCPE_HeartbeatType}, Bytes(4))); // it has finished nothing
    std::vector<std::jthread> senders;
    for (int sender = 0; sender < 4; ++sender) {
      senders.emplace_back([&] {
        while (a.SendTime(0, kPeer) == eTCPE_CommErr_None) {
        }
      });
    }
    ASSERT_TRUE(Eventually([&] { return PeerOf(a, kPeer).waitingSenders == senders.size(); }));
    const std::int64_t begin = Sys_Clock::RawMicroseconds();
    ends[round % std::size(ends)](a, peer);
    senders.clear();
    worst = std::max(worst, Sys_Clock::RawMicroseconds() - begin);
  }
  ExpectWithin("all are back after, us", worst, 1'000'000);
}

TEST(TCPE_Flow, AHostThatPumpsGetsEverythingAndIsRefusedWhatItWouldHaveToWaitFor) {
  constexpr std::int64_t kFlood = 5'000;
  std::latch hold(1);
  TestSystem a(0), host(1);
  a.handler = [&](const std::string& text, std::uint32_t) { text == "TestRunningTime 1" ? hold.wait() : void(); };
  host.SetHostPumpedDelivery(true);
  Link(a, host);
  std::jthread flood([&] {
    for (std::int64_t i = 0; i < kFlood; ++i) {
      EXPECT_EQ(a.SendTime(i, host.Address()), eTCPE_CommErr_None);
    }
  });
  std::int64_t next = 0;
  EXPECT_TRUE(Eventually([&] {
    while (TCPE_Command* const command = host.TakeCommand()) {
      const auto* time = dynamic_cast<const Trel_Cmd_TestRunningTime*>(command);
      EXPECT_TRUE(time == nullptr || time->GetTime() == next++);
      host.DisposeCommand(command);
    }
    return next == kFlood;
  }));
  std::size_t sent = 0;
  Trel_Cmd_TestRunningTime again(1);
  for (; again.GetError() == eTCPE_CommErr_None && sent <= 2 * TCPE_Limits{}.maxCommandsOut; ++sent) {
    host.Send(again, a.Address());
  }
  EXPECT_EQ(again.GetError(), eTCPE_CommErr_QueueFull);
  EXPECT_EQ(sent, TCPE_Limits{}.maxCommandsOut + 1);
  {
    const TCPE_CommManager::NeverWaits neverWaits;
    EXPECT_EQ(host.Send(again, a.Address()), eTCPE_CommErr_None) << "kept, and of its class again";
  }
  hold.count_down();
  EXPECT_TRUE(Eventually([&] { return a.Count("TestRunningTime") == static_cast<std::int64_t>(sent); }));
}

} // namespace
