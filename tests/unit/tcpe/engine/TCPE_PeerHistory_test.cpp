#include "tcpe/engine/TCPE_PeerHistory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

namespace {

TEST(TCPE_RoundTrips, TellsTheRankedTimeWithinItsClass) {
  const struct {
    std::vector<std::int64_t> times;
    std::int64_t median;
    std::int64_t percentile99;
  } cases[] = {{{}, 0, 0},
               {{-5}, 0, 0},
               {{7, 3, 9}, 7, 9},
               {{2'000'000}, 2'000'000, 2'000'000},
               {std::vector<std::int64_t>(99, 15), 15, 15},
               {{std::int64_t{1} << 60}, std::int64_t{1} << 25, std::int64_t{1} << 25}};
  for (const auto& test : cases) {
    TCPE_RoundTrips trips;
    for (const std::int64_t time : test.times) {
      trips.Add(time);
    }
    EXPECT_EQ(trips.Times().count, test.times.size());
    EXPECT_LE(std::abs(trips.Times().median - test.median), test.median * 7 / 100);
    EXPECT_LE(std::abs(trips.Times().percentile99 - test.percentile99), test.percentile99 * 7 / 100);
  }
}

TEST(TCPE_PeerHistory, KeepsTheTotalsOfAnAddressThroughItsConnections) {
  TCPE_PeerHistory history(2);
  TCPE_PeerTraffic::Add(history.Opened(1, 10, true, 100)->sent.bytes, 5);
  history.SetName(1, "one");
  history.Ended(1, 10, eNetworkError_ConnectionLost, 150);
  TCPE_PeerSnapshot peer = history.Peers(160).at(0);
  EXPECT_FALSE(peer.isConnected);
  EXPECT_EQ(peer.goneFor, 10);
  history.Opened(1, 11, false, 200)->AddError(eTCPE_CommErr_TimedOut);
  history.Opened(1, 12, false, 210)->AddError(static_cast<TCPE_CommErr>(999));
  history.Ended(1, 11, eNetworkError_MalformedData, 220); // told late: its successor stays
  peer = history.Peers(230).at(0);
  EXPECT_TRUE(peer.isConnected && !peer.isOpenedByPeer);
  EXPECT_EQ(peer.connectedFor, 20);
  EXPECT_EQ(peer.name, "one");
  EXPECT_EQ(peer.sent.bytes, 5U);
  EXPECT_EQ(peer.connections, 3U);
  EXPECT_EQ(peer.losses, 2U);
  EXPECT_EQ(peer.lastLoss, eNetworkError_MalformedData);
  EXPECT_EQ(peer.errors.at(eTCPE_CommErr_TimedOut), 1U);
  EXPECT_EQ(peer.errors.at(0), 1U);

  for (const std::uint32_t address : {4U, 3U, 2U}) { // the first of them to leave is the first to be forgotten
    history.Opened(address, 20 + address, true, 300);
    history.Ended(address, 20 + address, eNetworkError_None, 400 - address);
  }
  std::vector<std::uint32_t> addresses;
  for (const TCPE_PeerSnapshot& known : history.Peers(500)) {
    addresses.push_back(known.address);
  }
  EXPECT_EQ(addresses, (std::vector<std::uint32_t>{1, 2, 3}));
}

} // namespace
