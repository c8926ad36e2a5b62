#include <trel/SPSStartupOption.h>
#include <trel/Sys_UDPSocket.h>

#include "tests/support/TestSystem.h"

#include <map>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::byte>;

/// What a tap was told, each connection and direction by itself.
struct Told {
  std::map<std::string, Bytes> streams; ///< by "sender's port > receiver's port"
  std::string order;                    ///< of sent and received bytes, and the ends
  std::int64_t lastTime = 0;
  bool isInOrder = true;

  static void Tap(const TCPE_TappedBytes& tapped, void* context) {
    auto& told = *static_cast<Told*>(context);
    const bool isSent = tapped.event == TCPE_TappedBytes::Event::sent;
    const std::string local = std::to_string(tapped.localPort);
    const std::string peer = std::to_string(tapped.peerPort);
    Bytes& stream = told.streams[isSent ? local + " > " + peer : peer + " > " + local];
    stream.insert(stream.end(), tapped.bytes.begin(), tapped.bytes.end());
    told.order += tapped.event == TCPE_TappedBytes::Event::closed ? 'c' : isSent ? 's' : 'r';
    told.isInOrder = told.isInOrder && tapped.rawTime >= told.lastTime;
    told.lastTime = tapped.rawTime;
  }
};

TEST(TCPE_ByteTap, TellsBothEndsTheSameBytesInAnOrderThatCanBe) {
  constexpr std::int64_t kTimes = 500;
  const std::string discovery = std::to_string(TestPort() + 8'000);
  SPSSetStartupOption("DiscoveryPort", discovery.c_str());
  Told atA;
  Told atB;
  TestSystem a(0), b(1);
  a.SetByteTap(&Told::Tap, &atA);
  b.SetByteTap(&Told::Tap, &atB);
  b.SetIsSatellite(true);
  Start(a, b);
  Sys_UDPSocket socket;
  ASSERT_TRUE(socket.Register() && socket.Bind(a.Address(), 0) && socket.AllocateReplyAddress());
  ASSERT_TRUE(a.SendDiscoveryRequestCommand(&socket, b.Address()));
  std::int32_t wait = 10'000;
  std::string host;
  std::string name;
  std::uint32_t address = 0;
  ETCPE_SystemType type{};
  std::uint8_t major = 0;
  std::uint8_t minor = 0;
  bool isAvailable = false;
  EXPECT_TRUE(
      a.ReceiveDiscoveryRequestReply(&socket, &wait, &host, &name, &address, &type, &major, &minor, &isAvailable));
  EXPECT_EQ(atA.order, "sr"); // the question and its answer
  ASSERT_TRUE(a.Connect(b.Address()));
  for (std::int64_t i = 0; i < kTimes; ++i) {
    a.SendTime(i, b.Address());
    b.SendTime(i, a.Address());
  }
  EXPECT_EQ(a.Query(b.Address()), eTCPE_CommErr_None);
  a.Disconnect(b.Address());
  EXPECT_TRUE(Eventually([&] { return b.Count("Disconnect") == 1 && a.Count("TestRunningTime") == kTimes; }));
  a.Terminate();
  b.Terminate();

  EXPECT_EQ(atA.streams, atB.streams);
  EXPECT_TRUE(atA.isInOrder && atB.isInOrder);
  EXPECT_EQ(atA.streams.size(), 4U);
  std::size_t total = 0;
  for (const auto& [ends, bytes] : atA.streams) {
    total += ends.find(discovery) == std::string::npos ? bytes.size() : 0;
  }
  // Hellos, connect command and its reply, times both ways, the query, its reply of one number, the farewell.
  EXPECT_EQ(total, 2U * 32 + 314 + 20 + 2 * kTimes * 28 + 20 + 24 + 20);
  EXPECT_EQ(atA.order.find('c'), atA.order.size() - 1);
  EXPECT_EQ(atB.order.find('c'), atB.order.size() - 1);

  const std::string before = atA.order;
  a.SetByteTap(nullptr);
  Link(a, b);
  EXPECT_EQ(atA.order, before);
  SPSSetStartupOption("DiscoveryPort", nullptr);
}

} // namespace
