#include "tests/support/TestSystem.h"

#include <future>

namespace {

TEST(TCPE_Snapshot, CountsExactlyWhatPassed) {
  std::promise<void> goOn;
  TestSystem a(0), b(1);
  a.SetSystemName("the one that connects");
  b.handler = [&](const std::string& text, std::uint32_t /*from*/) {
    text == "TestRunningTime 9" ? goOn.get_future().wait() : void();
  };
  Link(a, b);
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(a.Query(b.Address()), eTCPE_CommErr_None);
  }
  b.hasHandler = false;
  EXPECT_EQ(a.Query(b.Address()), eTCPE_CommErr_NoHandler);
  b.hasHandler = true;
  for (std::int64_t i = 9; i < 12; ++i) {
    a.SendTime(i, b.Address());
  }
  TCPE_PeerSnapshot atA;
  TCPE_PeerSnapshot atB;
  EXPECT_TRUE(Eventually([&] { // a sender counts after sending
    atA = PeerOf(a, b.Address());
    atB = PeerOf(b, a.Address());
    return atA.sent.bytes == atB.received.bytes && atA.received.bytes == atB.sent.bytes &&
           atA.sent.frames == atB.received.frames && atB.handlers.running == 1 && atB.handlers.waiting == 2;
  }));
  goOn.set_value();
  // Hello, connect command, what it has finished, five queries and one that nobody handles, three times of 8 bytes;
  // heartbeats beside them.
  EXPECT_EQ(atA.sent.bytes - (atA.sent.frames - 9) * 20, 32U + 20 + 294 + 24 + 6 * 20 + 3 * 28);
  EXPECT_EQ(b.GetSnapshot().counters.unhandledCommands, 1U);
  EXPECT_EQ(atB.name, "the one that connects");
  EXPECT_TRUE(atB.isOpenedByPeer && atB.isConnected && !atA.isOpenedByPeer && atA.isConnected);
  EXPECT_EQ(atA.roundTrips.count, 6U);
  EXPECT_EQ(atA.errors.at(eTCPE_CommErr_NoHandler), 1U);
}

} // namespace
