#include "tests/support/RawPeer.h"
#include "tests/support/ReportCollector.h"

#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_Cmd_Identity.h>

#include <gmock/gmock.h>

#include <future>
#include <latch>

using testing::ElementsAre;

namespace {

TEST(TCPE_Handlers, AFullQueueAndTheWrongThreadAreErrorsAtOnce) {
  std::latch hold(1);
  std::atomic<int> error = eTCPE_CommErr_None;
  TestSystem a(0), b(1);
  b.handler = [&](const std::string& text, std::uint32_t) { text == "TestRunningTime 0" ? hold.wait() : void(); };
  b.inPlace = [&](const std::string& text, std::uint32_t from) {
    return text == "ResetClock" && (error = b.Query(from)) != eTCPE_CommErr_None && !b.Connect(0x7f000030);
  };
  Link(a, b);
  EXPECT_EQ(a.Send(Trel_Cmd_ResetClock(), b.Address()), eTCPE_CommErr_None);
  EXPECT_EQ(error, eTCPE_CommErr_WrongThread);
  constexpr std::uint32_t kAsking = 0x7f000030;
  const std::size_t kRoom = TCPE_Limits{}.maxQueuedQueries;
  RawPeer asking = RawPeer::Admitted(kAsking, b.Address());
  asking.Send(RawTime(0));
  ASSERT_TRUE(Eventually([&] { return b.Count("TestRunningTime 0") == 1; }));
  for (std::size_t i = 0; i < kRoom + 3; ++i) {
    asking.Send(RawFrame({.flags = kTCPE_Flag_ReplyWanted, .type = eTrel_Cmd_GetState}));
  }
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(asking.Read().error, eTCPE_CommErr_QueueFull);
  }
  EXPECT_EQ(b.GetCounters().queueOverflows, 3U);
  hold.count_down();
  EXPECT_TRUE(Eventually([&] { return b.From(kAsking).size() == kRoom + 2; }));
}

TEST(TCPE_Handlers, APeerThatDrainsNothingIsDroppedOnceAndDelaysNoOther) {
  constexpr std::uint32_t kSlow = 0x7f000030;
  TestSystem a(0), b(1);
  Link(a, b);
  RoundTrips others(a, b.Address());
  const RawPeer slow = RawPeer::Admitted(kSlow, a.Address());
  const std::jthread heart([&slow](const std::stop_token& ends) { // it takes nothing, but is alive
    for (; !ends.stop_requested(); std::this_thread::sleep_for(std::chrono::milliseconds(100))) {
      slow.Send(RawFrame({.type = 0}));
    }
  });
  Trel_Cmd_ListSystems bulk;
  bulk.SetSystems(std::vector<Trel_System>(227));
  constexpr std::size_t kBulk = 4 + 227 * 72;
  std::size_t mostQueued = 0;
  TCPE_CommErr error = eTCPE_CommErr_None;
  std::size_t sent = 0;
  for (; error == eTCPE_CommErr_None && sent < 10'000; ++sent) {
    const std::int64_t before = others.Count();
    EXPECT_TRUE(Eventually([&] { return others.Count() > before; }));
    error = a.Send(bulk, kSlow);
    mostQueued = std::max(mostQueued, PeerOf(a, kSlow).outboundBytes);
  }
  EXPECT_EQ(error, eTCPE_CommErr_ConnectionLost);
  EXPECT_GE((sent + 1) * kBulk, TCPE_Limits{}.maxOutboundBytes - TCPE_Limits{}.outboundReserve);
  EXPECT_LE(mostQueued, TCPE_Limits{}.maxOutboundBytes);
  EXPECT_TRUE(Eventually([&] { return a.Count("error") == 1; }));
  EXPECT_THAT(a.From(kSlow), ElementsAre("Connect", ErrorText(eNetworkError_PeerTooSlow)));
  EXPECT_EQ(a.SendTime(1, kSlow), eTCPE_CommErr_NotConnected);
  others.ExpectUndisturbed();
  EXPECT_EQ(a.Count("error"), 1);
}

TEST(TCPE_Handlers, OfABrokenHostEndNothing) {
  const auto fail = [](auto...) -> bool { throw std::runtime_error("broken"); };
  ReportCollector reports;
  TestSystem a(0), b(1);
  b.handler = fail;
  b.inPlace = [&](const std::string&, std::uint32_t) { return !b.hasHandler && fail(); };
  b.SetCommandLog([](const char*) { throw std::runtime_error("broken"); });
  b.SetByteTap([](const TCPE_TappedBytes&, void*) { throw std::runtime_error("broken"); });
  Link(a, b);
  Trel_Cmd_GetState query;
  EXPECT_EQ(a.Send(query, b.Address()), eTCPE_CommErr_HandlerFailed);
  b.NetworkErrorOccured(eNetworkError_ConnectionLost, 0x7f000030);
  EXPECT_TRUE(Eventually([&] { return b.Count("error") == 1; }));
  b.hasHandler = false; // only what is answered in place is
  EXPECT_EQ(a.Send(query, b.Address()), eTCPE_CommErr_HandlerFailed) << "an object that failed is sent by its class";
  EXPECT_TRUE(a.IsConnected(b.Address()));
  EXPECT_GE(b.GetSnapshot().hostFailures, 10U);
  b.Terminate();
  const std::vector<std::string> texts = reports.Take();
  for (const char* kind : {"handler", "network-error callback", "hook", "command log"}) {
    EXPECT_THAT(texts, Contains(testing::HasSubstr("noexcept(" + std::string(kind) + "): broken")));
  }
}

TEST(TCPE_Handlers, OfAHostThatPumpsWaitForItButTimingDoesNot) {
  TestSystem host(0), peer(1);
  host.inPlace = [](const std::string& text, std::uint32_t) { return text == "UpdateRunningTime"; };
  const auto take = [&host](const char* name) {
    TCPE_Command* command = nullptr;
    EXPECT_TRUE(Eventually([&] { return (command = host.TakeCommand()) != nullptr; }));
    EXPECT_STREQ(command->GetCommandName(), name);
    return command;
  };
  EXPECT_EQ(host.TakeCommand(), nullptr);
  host.SetHostPumpedDelivery(true);
  Link(peer, host);
  EXPECT_EQ(peer.Send(Trel_Cmd_UpdateRunningTime(5), host.Address()), eTCPE_CommErr_None);
  Trel_Cmd_GetState query;
  auto answer = std::async(std::launch::async, [&] { return peer.Send(query, host.Address()); });
  host.DisposeCommand(take("Connect"));
  TCPE_Command* const command = take("GetState");
  host.DisposeCommand(&query); // none of those that it has taken
  dynamic_cast<Trel_Cmd_GetState&>(*command).SetState(eTrel_State_Play);
  EXPECT_EQ(answer.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  host.DisposeCommand(command);
  EXPECT_EQ(answer.get(), eTCPE_CommErr_None);
  EXPECT_EQ(query.GetState(), eTrel_State_Play);
  host.DisposeCommand(command); // unknown by now
  EXPECT_EQ(host.TakeCommand(), nullptr);

  // A loss is told from within TakeCommand, after the peer's commands.
  RawPeer::Admitted(0x7f000030, host.Address()).Send(RawTime(1));
  EXPECT_TRUE(Eventually([&] { return host.GetConnectedAddresses().size() == 1; }));
  host.DisposeCommand(take("Connect"));
  TCPE_Command* const inHand = take("TestRunningTime");
  EXPECT_EQ(host.Count("error"), 0);
  EXPECT_TRUE(Eventually([&] { return host.TakeCommand() == nullptr && host.Count("error") == 1; }));
  host.Terminate(); // with a command in hand
  host.DisposeCommand(inHand);
  EXPECT_EQ(peer.Count("error"), 0);
}

TEST(TCPE_Handlers, TerminatesAfterCallbacksThatOverlapAndWithCommandsInHand) {
  constexpr std::uint32_t kSecond = 0x7f000031;
  std::latch isTaken(1), bothRun(2), firstIsOver(1), secondIsOver(1);
  TestSystem a(0), b(1);
  a.SetHostPumpedDelivery(true);
  a.handler = [&](const std::string&, std::uint32_t from) {
    bothRun.arrive_and_wait();
    if (from == kSecond) {
      firstIsOver.wait();
      throw std::runtime_error("broken");
    }
  };
  const auto take = [&a] {
    TCPE_Command* command = nullptr;
    EXPECT_TRUE(Eventually([&] { return (command = a.TakeCommand()) != nullptr; }));
    return command;
  };
  Link(b, a);
  b.SendTime(1, a.Address());
  TCPE_Command* const own = take();
  const std::jthread other([&] {
    TCPE_Command* const command = take();
    isTaken.count_down();
    EXPECT_TRUE(Eventually([&] { return a.Count("error") == 1; }));
    EXPECT_EQ(a.TakeCommand(), nullptr);
    secondIsOver.count_down();
    EXPECT_TRUE(Eventually([&] { return !a.IsInitialized(); }));
    a.DisposeCommand(command);
  });
  isTaken.wait();
  a.NetworkErrorOccured(eNetworkError_ConnectionLost, kSecond - 1);
  a.NetworkErrorOccured(eNetworkError_ConnectionLost, kSecond);
  EXPECT_EQ(a.TakeCommand(), nullptr);
  firstIsOver.count_down();
  secondIsOver.wait();
  const std::int64_t begin = Sys_Clock::RawMicroseconds();
  a.Terminate();
  ExpectWithin("Terminate with commands in hand, us", Sys_Clock::RawMicroseconds() - begin, 500'000);
  EXPECT_FALSE(a.IsInitialized());
  a.DisposeCommand(own);
}

TEST(TCPE_Handlers, RepliesFindTheirCallsInAnyOrder) {
  constexpr std::uint32_t kPeer = 0x7f000030;
  TestSystem a(0);
  ASSERT_EQ(a.Start(), 0);
  RawPeer peer = RawPeer::Admitted(kPeer, a.Address());
  std::vector<std::future<int>> states;
  std::vector<Bytes> replies;
  for (const int state : {1, 2, 3}) {
    states.push_back(std::async(std::launch::async, [&a] {
      Trel_Cmd_GetState query;
      return a.Send(query, kPeer) == eTCPE_CommErr_None ? query.GetState() : -1;
    }));
    Bytes payload(4);
    payload[3] = static_cast<std::byte>(state);
    const std::uint32_t serial = peer.Read().serial;
    replies.push_back(RawFrame({.flags = kTCPE_Flag_Reply, .type = eTrel_Cmd_GetState, .serial = serial}, payload));
  }
  peer.Send(replies[1] + replies[2] + replies[0]);
  for (int state = 0; std::future<int> & told : states) {
    EXPECT_EQ(told.get(), ++state);
  }
}

TEST(TCPE_Handlers, RepliesToOneCommandForManyAreAwaitedTogether) {
  constexpr std::uint32_t kSilent = 0x7f000030;
  constexpr std::uint32_t kNobody = 0x7f000031;
  TestSystem a(0), b(1);
  Link(a, b);
  RawPeer silent = RawPeer::Admitted(kSilent, a.Address());
  const std::vector<std::uint32_t> addresses{kSilent, b.Address(), kNobody, kSilent, b.Address()};
  std::vector<std::size_t> answered;
  Trel_Cmd_GetState query;
  const std::int64_t begin = Sys_Clock::RawMicroseconds();
  EXPECT_THAT(a.SendCommandToAll(&query, addresses,
                                 [&](std::size_t place, const TCPE_Command& reply) {
                                   answered.push_back(place);
                                   EXPECT_NE(dynamic_cast<const Trel_Cmd_GetState*>(&reply), nullptr);
                                 }),
              ElementsAre(eTCPE_CommErr_TimedOut, eTCPE_CommErr_None, eTCPE_CommErr_NotConnected,
                          eTCPE_CommErr_TimedOut, eTCPE_CommErr_None));
  ExpectWithin("one wait for all, us", Sys_Clock::RawMicroseconds() - begin, 3'000'000);
  EXPECT_THAT(answered, ElementsAre(1, 4));
  EXPECT_EQ(b.Count("GetState"), 2);
  Trel_Cmd_TestRunningTime time(1);
  EXPECT_THAT(a.SendCommandToAll(&time, addresses),
              ElementsAre(eTCPE_CommErr_None, eTCPE_CommErr_None, eTCPE_CommErr_NotConnected, eTCPE_CommErr_None,
                          eTCPE_CommErr_None));
  EXPECT_TRUE(Eventually([&] { return b.Count("TestRunningTime 1") == 2; }));
  for (const TCPE_eCmd type : {eTrel_Cmd_GetState, eTrel_Cmd_GetState, eTrel_Cmd_TestRunningTime}) {
    EXPECT_EQ(silent.Read().type, type);
  }
  Trel_Cmd_Disconnect farewell;
  EXPECT_THAT(a.SendCommandToAll(&farewell, addresses), testing::Each(eTCPE_CommErr_NotSendable));
}

std::mutex sLogMutex;
std::vector<std::string> sLog;

TEST(TCPE_Handlers, CommandLogTellsWhatIsSentReceivedAndReplied) {
  sLog.clear();
  TestSystem a(0), b(1);
  for (TestSystem* system : {&a, &b}) {
    system->SetCommandLog([](const char* line) {
      const std::lock_guard lock(sLogMutex);
      sLog.emplace_back(line);
    });
  }
  Link(a, b);
  EXPECT_TRUE(Eventually([&] { return b.Count("Connect") == 1; }));
  for (const bool isHandled : {true, false}) { // not logged, nor when refused
    b.hasHandler = isHandled;
    EXPECT_EQ(a.Send(Trel_Cmd_GetCurrentRunningTime(), b.Address()),
              isHandled ? eTCPE_CommErr_None : eTCPE_CommErr_NoHandler);
  }
  b.hasHandler = true;
  a.SendTime(5, b.Address());
  EXPECT_EQ(a.Query(b.Address()), eTCPE_CommErr_None);
  EXPECT_TRUE(Eventually([] { // the reply is logged after it has gone
    const std::lock_guard lock(sLogMutex);
    return sLog.size() == 8;
  }));
  EXPECT_THAT(sLog,
              testing::UnorderedElementsAre(
                  testing::HasSubstr("sent Connect to 127.0.0.11: "),
                  testing::HasSubstr("received Connect from 127.0.0.10: "),
                  "sent TestRunningTime to 127.0.0.11: Time=5", "sent GetState to 127.0.0.11",
                  "received TestRunningTime from 127.0.0.10: Time=5", "received GetState from 127.0.0.10",
                  "got the reply to GetState from 127.0.0.11: State=0", "replied to GetState of 127.0.0.10: State=0"));
}

} // namespace
