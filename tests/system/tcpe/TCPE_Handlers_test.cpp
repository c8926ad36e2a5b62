#include "tests/support/RawPeer.h"

#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_TCPEInterface.h>

#include <gmock/gmock.h>

#include <barrier>
#include <future>
#include <latch>
#include <semaphore>

using testing::ElementsAre;

namespace {

/// Travels as a TestRunningTime 0 with a large payload.
class Bulk : public TCPE_Command {
public:
  static constexpr std::size_t kSize = 16'000;
  Bulk() : TCPE_Command(nullptr, eTrel_Cmd_TestRunningTime, 0) {}
  void PrepareTransmitCommand(char** cursor) override {
    std::fill_n(*cursor, kSize, '\0');
    *cursor += kSize;
  }
};

TEST(TCPE_Handlers, OfTwoSystemsQueryEachOtherAtTheSameMoment) {
  constexpr int kRounds = 10'000;
  std::atomic<int> failures = 0;
  TestSystem a(0), b(1);
  for (TestSystem* system : {&a, &b}) {
    system->handler = [system, &failures](const std::string& text, std::uint32_t from) {
      if (text == "GetState") {
        failures += system->Send(Trel_Cmd_GetPositionRunningTimeCorrelation(), from) != eTCPE_CommErr_None ? 1 : 0;
      }
    };
  }
  Link(a, b);
  std::barrier together(2);
  const auto ask = [&](TestSystem& from, const TestSystem& to) {
    std::int64_t worst = 0;
    for (int round = 0; round < kRounds; ++round) {
      together.arrive_and_wait();
      const std::int64_t begin = Sys_Clock::RawMicroseconds();
      failures += from.Query(to.Address()) != eTCPE_CommErr_None ? 1 : 0;
      worst = std::max(worst, Sys_Clock::RawMicroseconds() - begin);
    }
    return worst;
  };
  auto other = std::async(std::launch::async, [&] { return ask(b, a); });
  const std::int64_t worst = ask(a, b);
  ExpectWithin("worst query among 20000, us", std::max(worst, other.get()), 1'000'000);
  EXPECT_EQ(failures, 0);
}

TEST(TCPE_Handlers, StartInOrderTheNextOneWhenOneEndsOrWaits) {
  constexpr std::int64_t kBurst = 1000;
  std::atomic<int> running = 0;
  std::atomic<int> most = 0;
  TestSystem a(0), b(1);
  b.handler = [&](const std::string& text, std::uint32_t from) {
    most = std::max(most.load(), ++running);
    EXPECT_TRUE(text != "TestRunningTime 1000" || b.Query(from) == eTCPE_CommErr_None);
    --running;
  };
  // The answer comes when the next command of the one who waits for it has started, and not before.
  a.handler = [&](const std::string& text, std::uint32_t) {
    EXPECT_TRUE(text != "GetState" || Eventually([&] { return b.Count("TestRunningTime 1001") == 1; }));
  };
  Link(a, b);
  std::vector<std::string> expected{"Connect"};
  for (std::int64_t i = 0; i < kBurst; ++i) {
    ASSERT_EQ(a.SendTime(i, b.Address()), eTCPE_CommErr_None);
    expected.push_back("TestRunningTime " + std::to_string(i));
  }
  EXPECT_TRUE(Eventually([&] { return b.From(a.Address()).size() == expected.size(); }));
  EXPECT_EQ(b.From(a.Address()), expected);
  EXPECT_EQ(most, 1);
  a.SendTime(kBurst, b.Address());
  a.SendTime(kBurst + 1, b.Address());
  EXPECT_TRUE(Eventually([&] { return b.Count("TestRunningTime 1001") == 1 && running == 0; }));
}

TEST(TCPE_Handlers, AMissingOneAFullQueueAndTheWrongThreadAreErrorsAtOnce) {
  std::latch hold(1);
  std::atomic<int> error = eTCPE_CommErr_None;
  TestSystem a(0), b(1);
  b.handler = [&](const std::string& text, std::uint32_t) { text == "TestRunningTime 0" ? hold.wait() : void(); };
  b.inPlace = [&](const std::string& text, std::uint32_t from) {
    if (text == "ResetClock") {
      error = b.Query(from);
      EXPECT_FALSE(b.Connect(0x7f000030));
    }
    return text == "ResetClock";
  };
  Link(a, b);
  const std::int64_t begin = Sys_Clock::RawMicroseconds();
  EXPECT_EQ(a.Send(Trel_Cmd_ResetClock(), b.Address()), eTCPE_CommErr_None);
  EXPECT_EQ(error, eTCPE_CommErr_WrongThread);
  b.hasHandler = false;
  Trel_Cmd_GetState query;
  EXPECT_EQ(a.Send(query, b.Address()), eTCPE_CommErr_NoHandler);
  EXPECT_EQ(query.GetCommandType(), -1);
  b.hasHandler = true;
  const std::size_t kRoom = TCPE_Limits{}.maxQueuedCommands;
  a.SendTime(0, b.Address());
  ASSERT_TRUE(Eventually([&] { return b.Count("TestRunningTime 0") == 1; }));
  for (std::size_t i = 0; i < kRoom + 10; ++i) {
    ASSERT_EQ(a.SendTime(1, b.Address()), eTCPE_CommErr_None);
  }
  EXPECT_EQ(a.Query(b.Address()), eTCPE_CommErr_QueueFull);
  ExpectWithin("errors after us", Sys_Clock::RawMicroseconds() - begin, 1'000'000);
  EXPECT_EQ(b.GetCounters().queueOverflows, 11U);
  EXPECT_EQ(b.GetCounters().unhandledCommands, 1U);
  hold.count_down();
  EXPECT_TRUE(Eventually([&] { return b.From(a.Address()).size() == kRoom + 2; }));
  EXPECT_EQ(a.Query(b.Address()), eTCPE_CommErr_None);
}

TEST(TCPE_Handlers, APeerThatDrainsNothingIsDroppedOnceAndDelaysNoOther) {
  constexpr std::uint32_t kSlow = 0x7f000030;
  TestSystem a(0), b(1);
  Link(a, b);
  RoundTrips others(a, b.Address());
  const RawPeer slow = RawPeer::Admitted(kSlow, a.Address());
  TCPE_CommErr error = eTCPE_CommErr_None;
  std::size_t sent = 0;
  for (; error == eTCPE_CommErr_None && sent < 10'000; ++sent) {
    error = a.Send(Bulk(), kSlow);
    slow.Send(RawFrame({.type = 0})); // it takes nothing, but is alive
    const std::int64_t before = others.Count();
    EXPECT_TRUE(Eventually([&] { return others.Count() > before; }));
  }
  EXPECT_EQ(error, eTCPE_CommErr_QueueFull);
  EXPECT_GE(sent * Bulk::kSize, TCPE_Limits{}.maxOutboundBytes);
  EXPECT_TRUE(Eventually([&] { return a.Count("error") == 1; }));
  EXPECT_THAT(a.From(kSlow), ElementsAre("Connect", ErrorText(eNetworkError_PeerTooSlow)));
  EXPECT_EQ(a.SendTime(1, kSlow), eTCPE_CommErr_NotConnected);
  others.ExpectUndisturbed();
  EXPECT_EQ(a.Count("error"), 1);
}

TEST(TCPE_Handlers, ABusyNetworkThreadMakesNoPeerSlowAndLosesNoFarewell) {
  std::binary_semaphore isHeld(0), hold(0);
  std::atomic<std::size_t> arrived = 0;
  TestSystem a(0), b(1);
  a.inPlace = [&](const std::string& text, std::uint32_t) {
    if (text == "TestRunningTime 1") {
      isHeld.release();
      hold.acquire();
    }
    return text != "Disconnect";
  };
  b.inPlace = [&](const std::string& text, std::uint32_t) { return text != "Connect" && ++arrived != 0; };
  Link(a, b);
  b.SendTime(1, a.Address());
  isHeld.acquire();
  const std::size_t kCommands = TCPE_Limits{}.maxOutboundBytes / Bulk::kSize + 4;
  for (std::size_t i = 0; i < kCommands; ++i) {
    EXPECT_EQ(a.Send(Bulk(), b.Address()), eTCPE_CommErr_None) << i;
  }
  hold.release();
  EXPECT_TRUE(Eventually([&] { return arrived == kCommands; }));
  // The farewell is unread when this side finds that it cannot send any more.
  b.SendTime(1, a.Address());
  isHeld.acquire();
  EXPECT_TRUE(b.Disconnect(a.Address()));
  EXPECT_TRUE(Eventually([&] { return a.SendTime(2, b.Address()) != eTCPE_CommErr_None; }));
  hold.release();
  EXPECT_TRUE(Eventually([&] { return a.Count("Disconnect") == 1; }));
  EXPECT_EQ(a.Count("error") + b.Count("error"), 0);
}

std::atomic<int> sErrorsOfHost = 0;

TEST(TCPE_HostPumped, CommandsWaitForTheHostAndTimingDoesNot) {
  Trel_TCPEInterface host;
  TestSystem peer(1);
  const std::uint32_t address = 0x7f00000a;
  TCPE_CommPreferences preferences(address, TestPort());
  const std::array handled{eTrel_Cmd_Connect,           eTrel_Cmd_Disconnect, eTrel_Cmd_GetState,
                           eTrel_Cmd_UpdateRunningTime, eTrel_Cmd_ResetClock, eTrel_Cmd_TestRunningTime};
  for (const Trel_eCmd identifier : handled) {
    Trel_Command::SetDoItCommand(identifier, [](TCPE_Command* command) {
      if (auto* query = dynamic_cast<Trel_Cmd_GetState*>(command)) {
        query->SetState(eTrel_State_Play);
      }
    });
  }
  const auto take = [&host](const char* name) {
    TCPE_Command* command = nullptr;
    EXPECT_TRUE(Eventually([&] { return (command = host.TakeCommand()) != nullptr; }));
    EXPECT_STREQ(command->GetCommandName(), name);
    host.PreProcessConnectionCommands(command);
    return command;
  };
  EXPECT_EQ(host.TakeCommand(), nullptr);
  host.SetHostPumpedDelivery(true);
  ASSERT_EQ(host.Initialize(&preferences, [](ETCPE_NetworkError, std::uint32_t) { ++sErrorsOfHost; }), 0);
  ASSERT_EQ(peer.Start(), 0);

  // Timing commands are answered while the host does not pump, and never come to it.
  ASSERT_TRUE(peer.Connect(address));
  EXPECT_EQ(peer.Send(Trel_Cmd_UpdateRunningTime(5), address), eTCPE_CommErr_None);
  EXPECT_EQ(peer.Send(Trel_Cmd_ResetClock(), address), eTCPE_CommErr_None);
  Trel_Cmd_GetState query;
  auto answer = std::async(std::launch::async, [&] { return peer.Send(query, address); });
  host.DisposeCommand(take("Connect"));
  EXPECT_TRUE(host.IsConnected(peer.Address()));
  TCPE_Command* command = take("GetState");
  Trel_Cmd_GetState unknown;
  for (TCPE_Command* other : std::initializer_list<TCPE_Command*>{nullptr, &unknown}) {
    host.DisposeCommand(other);
    host.PreProcessConnectionCommands(other);
  }
  Trel_Command::DoIt(command);
  EXPECT_EQ(answer.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  host.DisposeCommand(command);
  EXPECT_EQ(answer.get(), eTCPE_CommErr_None);
  EXPECT_EQ(query.GetState(), eTrel_State_Play);
  host.DisposeCommand(command); // unknown by now
  EXPECT_EQ(peer.Send(Trel_Cmd_Disconnect(), address), eTCPE_CommErr_None);
  host.DisposeCommand(take("Disconnect"));
  EXPECT_FALSE(host.IsConnected(peer.Address()));
  EXPECT_EQ(host.TakeCommand(), nullptr);

  // A loss is told from within TakeCommand, after the peer's commands.
  RawPeer::Admitted(0x7f000030, address).Send(RawTime(1));
  EXPECT_TRUE(Eventually([&] { return host.GetConnectedAddresses().empty(); }));
  host.DisposeCommand(take("Connect"));
  host.DisposeCommand(take("TestRunningTime"));
  EXPECT_EQ(sErrorsOfHost, 0);
  EXPECT_TRUE(Eventually([&] { return host.TakeCommand() == nullptr && sErrorsOfHost == 1; }));
  host.Terminate();
  EXPECT_EQ(peer.Count("error"), 0);
  for (const Trel_eCmd identifier : handled) {
    Trel_Command::SetDoItCommand(identifier, nullptr);
  }
}

std::mutex sLogMutex;
std::vector<std::string> sLog;

TEST(TCPE_Handlers, CommandLogTellsWhatIsSentReceivedAndReplied) {
  const auto log = [](const char* line) {
    const std::lock_guard lock(sLogMutex);
    sLog.emplace_back(line);
  };
  const auto linesWith = [](const char* text) {
    const std::lock_guard lock(sLogMutex);
    std::vector<std::string> lines;
    std::copy_if(sLog.begin(), sLog.end(), std::back_inserter(lines),
                 [text](const std::string& line) { return line.find(text) != std::string::npos; });
    return lines;
  };
  TestSystem a(0), b(1);
  a.SetCommandLog(log);
  b.SetCommandLog(log);
  Link(a, b);
  EXPECT_EQ(a.Send(Trel_Cmd_GetCurrentRunningTime(), b.Address()), eTCPE_CommErr_None); // not logged
  a.SendTime(5, b.Address());
  EXPECT_EQ(a.Query(b.Address()), eTCPE_CommErr_None);
  EXPECT_TRUE(Eventually([&] { return linesWith("replied").size() == 1; })); // logged after the reply has gone
  a.SetCommandLog(nullptr);
  a.SendTime(6, b.Address());
  EXPECT_TRUE(Eventually([&] { return linesWith("127.0.0.10").size() == 5; }));
  EXPECT_THAT(linesWith("127.0.0.11"),
              ElementsAre(testing::HasSubstr("sent Connect to 127.0.0.11: "),
                          "sent TestRunningTime to 127.0.0.11: Time=5", "sent GetState to 127.0.0.11",
                          "got the reply to GetState from 127.0.0.11: State=0"));
  EXPECT_THAT(linesWith("127.0.0.10"),
              ElementsAre(testing::HasSubstr("received Connect from 127.0.0.10: "),
                          "received TestRunningTime from 127.0.0.10: Time=5", "received GetState from 127.0.0.10",
                          "replied to GetState of 127.0.0.10: State=0",
                          "received TestRunningTime from 127.0.0.10: Time=6"));
}

} // namespace
