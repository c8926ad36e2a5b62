#include "tests/support/RawPeer.h"

#include <future>
#include <optional>
#include <thread>

namespace {

TCPE_PeerSnapshot Of(const TestSystem& system, std::uint32_t address) {
  for (const TCPE_PeerSnapshot& peer : system.GetSnapshot().peers) {
    if (peer.address == address) {
      return peer;
    }
  }
  return {};
}

TEST(TCPE_Snapshot, CountsExactlyWhatPassed) {
  std::promise<void> goOn;
  TestSystem a(0), b(1);
  a.SetSystemName("the one that connects");
  a.SetSystemType(eTCPE_SystemType_Satellite);
  EXPECT_FALSE(a.GetSnapshot().isInitialized);
  Link(a, b);
  b.handler = [&](const std::string& text, std::uint32_t /*from*/) {
    if (text == "TestRunningTime 9") {
      goOn.get_future().wait();
    }
  };
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(a.Query(b.Address()), eTCPE_CommErr_None);
  }
  b.hasHandler = false;
  EXPECT_EQ(a.Query(b.Address()), eTCPE_CommErr_NoHandler);
  b.hasHandler = true;
  for (std::int64_t i = 9; i < 12; ++i) {
    a.SendTime(i, b.Address());
  }
  // Hello, connect command, five queries and one that nobody handles, three times of 8 bytes.
  constexpr std::uint64_t kBytes = 32 + 20 + 294 + 6 * 20 + 3 * 28;
  TCPE_PeerSnapshot atA;
  TCPE_PeerSnapshot atB;
  EXPECT_TRUE(Eventually([&] { // a sender counts after sending
    atA = Of(a, b.Address());
    atB = Of(b, a.Address());
    return atA.sent.bytes == kBytes && atA.received.bytes == atB.sent.bytes && atB.received.frames == 9 &&
           atB.handlers.running == 1 && atB.handlers.waiting == 2;
  }));
  goOn.set_value();

  EXPECT_EQ(a.GetSnapshot().adaptorName, "lo");
  EXPECT_EQ(a.GetSnapshot().communicationPort, TestPort());
  EXPECT_EQ(b.GetSnapshot().counters.unhandledCommands, 1U);
  EXPECT_EQ(atB.name, "the one that connects");
  EXPECT_EQ(atB.systemType, eTCPE_SystemType_Satellite);
  EXPECT_TRUE(atB.isOpenedByPeer && atB.isConnected && !atA.isOpenedByPeer && atA.isConnected);
  EXPECT_EQ(atA.sent.frames, 9U);
  EXPECT_EQ(atA.received.frames, 6U);
  EXPECT_EQ(atB.sent.frames, 6U);
  EXPECT_EQ(atB.received.bytes, kBytes);
  EXPECT_EQ(atA.roundTrips.count, 6U);
  EXPECT_GT(atA.roundTrips.median, 0);
  EXPECT_GE(atA.roundTrips.percentile99, atA.roundTrips.median);
  EXPECT_EQ(atA.errors.at(eTCPE_CommErr_NoHandler), 1U);
  EXPECT_EQ(atB.roundTrips.count, 0U);
  EXPECT_EQ(atA.connections, 1U);
  EXPECT_EQ(atA.losses + atB.losses, 0U);
}

TEST(TCPE_Snapshot, CountsLossesAndReconnections) {
  constexpr std::uint32_t kPeer = 0x7f00001e;
  TestSystem a(0);
  ASSERT_EQ(a.Start(), 0);
  std::optional<RawPeer> peer;
  for (std::uint64_t times = 1; times <= 3; ++times) {
    peer.emplace(RawPeer::Admitted(kPeer, a.Address()));
    std::thread query([&] { EXPECT_EQ(a.Query(kPeer), eTCPE_CommErr_ConnectionLost); });
    EXPECT_TRUE(Eventually([&] { return Of(a, kPeer).pendingCalls == 1; }));
    peer.reset();
    query.join();
    EXPECT_TRUE(Eventually([&] { return Of(a, kPeer).losses == times; }));
    const TCPE_PeerSnapshot known = Of(a, kPeer);
    EXPECT_EQ(known.connections, times);
    EXPECT_EQ(known.lastLoss, eNetworkError_ConnectionLost);
    EXPECT_EQ(known.errors.at(eTCPE_CommErr_ConnectionLost), times);
    EXPECT_FALSE(known.isConnected);
    EXPECT_GT(known.goneFor, 0);
    EXPECT_EQ(known.pendingCalls, 0U);
  }
}

} // namespace
