#include "tests/support/RawPeer.h"
#include "tests/support/ReportCollector.h"

#include <filesystem>
#include <future>

namespace {

/// What is reported of an address comes in order: with the marker behind them, these are all.
void ExpectOnly(TestSystem& system, std::uint32_t address, std::vector<std::string> texts) {
  EXPECT_TRUE(Eventually([&] { return system.From(address).size() >= texts.size(); }));
  system.NetworkErrorOccured(eNetworkError_PeerTooSlow, address);
  texts.push_back(ErrorText(eNetworkError_PeerTooSlow));
  EXPECT_TRUE(Eventually([&] { return system.From(address).size() >= texts.size(); }));
  EXPECT_EQ(system.From(address), texts);
}

TEST(TCPE_Failures, SendersToNobodyAreToldAtOnceAndNobodyElse) {
  TestSystem system(0);
  ASSERT_EQ(system.Start(), 0);
  for (const std::uint32_t address : {system.Address() + 1, system.Address(), 0U, 0x7fffffffU, 0xffffffffU}) {
    SCOPED_TRACE(address);
    EXPECT_FALSE(system.Connect(address) || system.IsConnected(address) || system.Disconnect(address));
    EXPECT_EQ(system.Query(address), eTCPE_CommErr_NotConnected);
    EXPECT_EQ(system.SendTime(1, address), eTCPE_CommErr_NotConnected);
    ExpectOnly(system, address, {});
  }
}

TEST(TCPE_Failures, ARefusalIsToldOnceWithItsKind) {
  for (const ETCPE_NetworkError error : {eNetworkError_NotAllowed, eNetworkError_Full}) {
    SCOPED_TRACE(error);
    TestSystem caller(0), acceptor(1);
    acceptor.admits = error != eNetworkError_NotAllowed;
    acceptor.maxSatellites = error != eNetworkError_Full ? 128 : 0;
    Start(caller, acceptor);
    EXPECT_FALSE(caller.Connect(acceptor.Address()));
    EXPECT_FALSE(caller.IsConnected(acceptor.Address()) || acceptor.IsConnected(caller.Address()));
    ExpectOnly(caller, acceptor.Address(), {ErrorText(error)});
    ExpectOnly(acceptor, caller.Address(), {});
    EXPECT_TRUE(Eventually([&] { return acceptor.GetCounters().refusedConnections == 1; }));
  }
}

TEST(TCPE_Failures, ALostPeerIsToldOnceAfterItsCommands) {
  const struct {
    std::uint32_t address;
    void (*end)(RawPeer& peer);
    TCPE_CommErr waitingSenderGets;
    ETCPE_NetworkError told;
  } cases[] = {
      {0x7f000020, [](RawPeer&) {}, eTCPE_CommErr_TimedOut, eNetworkError_ConnectionLost}, // it is frozen
      {0x7f000021, [](RawPeer& peer) { peer.Close(); }, eTCPE_CommErr_ConnectionLost, eNetworkError_ConnectionLost},
      {0x7f000022, [](RawPeer& peer) { peer.Reset(); }, eTCPE_CommErr_ConnectionLost, eNetworkError_ConnectionLost},
      {0x7f000023, [](RawPeer& peer) { peer.Send(Bytes(20, std::byte{0xff})); }, eTCPE_CommErr_ConnectionLost,
       eNetworkError_MalformedData},
  };
  TestSystem system(0);
  // The first command holds the later ones back until the loss is known: it must not be told before them.
  system.handler = [&system](const std::string& text, std::uint32_t from) {
    EXPECT_TRUE(text != "TestRunningTime 1" || Eventually([&] { return !system.IsConnected(from); }));
    EXPECT_FALSE(text.starts_with("error") && system.GetConnectedAddresses().contains(from));
  };
  ASSERT_EQ(system.Start(), 0);
  std::vector<RawPeer> peers;
  std::vector<std::future<TCPE_CommErr>> waiting;
  for (const auto& test : cases) {
    peers.push_back(RawPeer::Admitted(test.address, system.Address()));
    waiting.push_back(std::async(std::launch::async, [&] { return system.Query(test.address); }));
    EXPECT_EQ(peers.back().Read().type, eTrel_Cmd_GetState);
    peers.back().Send(RawTime(1) + RawTime(2));
  }
  const std::int64_t begin = Sys_Clock::RawMicroseconds();
  for (std::size_t i = 0; i < peers.size(); ++i) {
    cases[i].end(peers[i]);
  }
  for (std::size_t i = peers.size(); i-- > 0;) {
    SCOPED_TRACE(cases[i].address);
    EXPECT_EQ(waiting[i].get(), cases[i].waitingSenderGets);
    EXPECT_TRUE(Eventually([&] { return system.From(cases[i].address).size() == 4; }));
    ExpectWithin("told after us", Sys_Clock::RawMicroseconds() - begin, 4'000'000);
    ExpectOnly(system, cases[i].address,
               {"Connect", "TestRunningTime 1", "TestRunningTime 2", ErrorText(cases[i].told)});
  }
}

TEST(TCPE_Failures, AFailedStartLeavesNothingBehind) {
  const auto count = [] {
    const auto entries = [](const char* folder) {
      return std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator());
    };
    return std::pair(entries("/proc/self/fd"), entries("/proc/self/task"));
  };
  TestSystem system(0), other(1);
  TestSystem sameAddress(0);
  TCPE_CommManager withoutTask;
  ASSERT_EQ(system.Start() + other.Start(), 0);
  const auto before = count();
  TCPE_CommPreferences here(0x7f000020, TestPort());
  EXPECT_EQ(sameAddress.Start(), eTCPE_Status_PortInUse);
  EXPECT_EQ(withoutTask.Initialize(&here, nullptr), eTCPE_Status_NoCommTask);
  EXPECT_EQ(system.Start(), eTCPE_Status_AlreadyInitialized);
  EXPECT_TRUE(Eventually([&] { return count() == before; }));
  EXPECT_TRUE(system.Connect(other.Address())); // it has not been harmed
  system.Terminate();
  EXPECT_EQ(sameAddress.Start(), 0);
  sameAddress.Terminate();
  other.Terminate();
  ReportCollector reports;
  TCPE_CommManager::SetSupportsMarlo11(true); // nobody holds the numbering any more
  EXPECT_TRUE(reports.Take().empty());
  EXPECT_EQ(other.Count("error") + system.Count("error") + sameAddress.Count("error"), 0);
}

} // namespace
