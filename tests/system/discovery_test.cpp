#include <trel/SPSStartupOption.h>
#include <trel/Sys_Socket.h>
#include <trel/Sys_UDPSocket.h>
#include <trel/Trel_CommManager.h>

#include "tcpe/protocol/TCPE_DiscoveryCodec.h"
#include "tests/support/PeerSystem.h"
#include "tests/support/SharedSecretFile.h"
#include "tests/support/TestSystem.h"

#include <gmock/gmock.h>

#include <array>
#include <map>
#include <optional>
#include <string>

namespace {

using Systems = std::map<Trel_System, bool>;

constexpr std::uint32_t kLoopbackBroadcast = 0x7fffffff;
constexpr std::int64_t kWait = 1'000'000; // of every query, us

std::uint16_t DiscoveryPort() { return static_cast<std::uint16_t>(TestPort() + 8'000); }

/// The host's system, and others beside it.
class DiscoveryTest : public testing::Test {
protected:
  DiscoveryTest() { SPSSetStartupOption("DiscoveryPort", std::to_string(DiscoveryPort()).c_str()); }
  ~DiscoveryTest() override {
    Trel_CommManager::Terminate();
    SPSSetStartupOption("DiscoveryPort", nullptr);
  }

  static void StartHost(bool isSatellite) {
    Trel_CommPreferences preferences = TestPreferences(kHostAddress);
    ASSERT_EQ(Trel_CommManager::Initialize(&preferences, nullptr), 0) << Trel_CommManager::GetInitializationReport();
    Trel_CommManager::SetIsSatellite(isSatellite);
    Trel_CommManager::SetAllowSatellitesToConnectToMasterSystem(true);
  }
  static std::string Texts(const Systems& systems) {
    std::string texts;
    for (const auto& [system, isAvailable] : systems) {
      texts += Sys_Socket::DecodeIPAddress(system.GetIPAddress()) + ' ' + system.GetSystemName() + ' ' +
               std::to_string(system.GetSystemType()) + (isAvailable ? " available; " : " taken; ");
    }
    return texts;
  }
};

/// Somebody who is no engine: hears the queries to an address, and sends what it likes.
class Stranger {
public:
  explicit Stranger(std::uint32_t address) {
    EXPECT_TRUE(mSocket.Register() && mSocket.SetReuseAddress(true) && mSocket.SetReusePort(true) &&
                mSocket.Bind(address, DiscoveryPort()) && mSocket.AllocateReplyAddress());
  }
  bool Hear(TCPE_DiscoveryCodec::Query* query) {
    std::array<std::byte, 1000> buffer{};
    std::size_t size = 0;
    return mSocket.Receive(buffer, 10'000'000, &size) == Sys_UDPSocket::Result::received &&
           mCodec.ReadQuery(std::span(buffer).first(size), mSocket.GetReplyAddress(), query) ==
               TCPE_DiscoveryCodec::Verdict::sound;
  }
  /// Sends to who asked.
  void Send(std::uint32_t from, const std::vector<std::byte>& datagram) const {
    Sys_UDPSocket socket;
    EXPECT_TRUE(socket.Register() && socket.Bind(from, 0) &&
                socket.Send(datagram, mSocket.GetReplyAddress(), mSocket.GetReplyPort()));
  }
  std::vector<std::byte> Reply(const TCPE_DiscoveryCodec::Query& query, const char* name) const {
    TCPE_DiscoveryCodec::Reply reply;
    reply.system.SetSystemName(name);
    reply.isAvailable = true;
    return mCodec.WriteReply(query, 0, reply);
  }

private:
  Sys_UDPSocket mSocket;
  const TCPE_DiscoveryCodec mCodec{{.majorVersion = 4, .minorVersion = 1}};
};

TEST_F(DiscoveryTest, EachRoleFindsTheOther) {
  PeerSystem master(kPeerAddress), satellite(kOtherPeerAddress);
  ASSERT_EQ(master.Status() + satellite.Status(), 0);
  master.SetSystemName("stage");
  master.SetSystemType(eTCPE_SystemType_Master);
  satellite.SetSystemName("booth");
  satellite.SetIsSatellite(true);
  satellite.SetSystemType(eTCPE_SystemType_Satellite);
  StartHost(true);

  Systems systems;
  Trel_CommManager::GetSatelliteList(&systems);
  Trel_System system;
  EXPECT_FALSE(Trel_CommManager::VerifySatelliteIsAvailable(kOtherPeerAddress, &system));
  EXPECT_EQ(Texts(systems), "");
  Trel_CommManager::GetMasterSystemsList(&systems);
  EXPECT_EQ(Texts(systems), "127.0.0.3 stage 1 taken; ");
  master.SetAllowSatellitesToConnectToMasterSystem(true);
  systems.clear();
  Trel_CommManager::GetMasterSystemsList(&systems);
  EXPECT_EQ(Texts(systems), "127.0.0.3 stage 1 available; ");

  Trel_CommManager::SetIsSatellite(false);
  systems.clear();
  Trel_CommManager::GetMasterSystemsList(&systems);
  EXPECT_EQ(Texts(systems), "");
  Trel_CommManager::GetSatelliteList(&systems);
  EXPECT_EQ(Texts(systems), "127.0.0.4 booth 2 available; ");
  EXPECT_TRUE(Trel_CommManager::VerifySatelliteIsAvailable(kOtherPeerAddress, &system));
  EXPECT_STREQ(system.GetSystemName(), "booth");
  EXPECT_FALSE(Trel_CommManager::VerifySatelliteIsAvailable(kPeerAddress, &system)) << "a master does not answer";
  ASSERT_TRUE(satellite.Connect(kPeerAddress));
  EXPECT_FALSE(Trel_CommManager::VerifySatelliteIsAvailable(kOtherPeerAddress, &system));
  EXPECT_EQ(Trel_CommManager::GetSnapshot().counters.malformedDatagrams, 0U);
}

TEST_F(DiscoveryTest, TheFirstReplyOfAnAddressCountsAndGarbageIsIgnored) {
  StartHost(true);
  Stranger stranger(kLoopbackBroadcast);
  Systems systems;
  std::int64_t waited = 0;
  std::jthread asking([&systems, &waited] {
    const std::int64_t begin = Sys_Clock::RawMicroseconds();
    Trel_CommManager::GetMasterSystemsList(&systems);
    waited = Sys_Clock::RawMicroseconds() - begin;
  });
  TCPE_DiscoveryCodec::Query query;
  ASSERT_TRUE(stranger.Hear(&query));
  constexpr std::uint32_t kOne = 0x7f000021;
  constexpr std::uint32_t kTwo = 0x7f000022;
  stranger.Send(kHostAddress, stranger.Reply(query, "itself"));
  stranger.Send(kOne, stranger.Reply(query, "first"));
  stranger.Send(kOne, stranger.Reply(query, "second"));
  TCPE_DiscoveryCodec::Query other = query;
  ++other.serial;
  stranger.Send(kTwo, stranger.Reply(other, "to another query"));
  // From here to the end something arrives all the time, and no more than half a millisecond apart.
  const std::int64_t begin = Sys_Clock::RawMicroseconds();
  while (Sys_Clock::RawMicroseconds() < begin + 1'200'000) {
    stranger.Send(kOne, std::vector<std::byte>(100));
    stranger.Send(kOne, stranger.Reply(query, "again"));
    if (Sys_Clock::RawMicroseconds() > begin + 800'000) { // more replies came by now than there may be systems
      stranger.Send(kTwo, stranger.Reply(query, "late"));
    }
    std::this_thread::sleep_for(std::chrono::microseconds(300));
  }
  asking.join();
  EXPECT_EQ(Texts(systems), "127.0.0.33 first 0 available; 127.0.0.34 late 0 available; ");
  EXPECT_GE(waited, kWait);
  ExpectWithin("time for a list in a flood, us", waited, kWait + 500'000);
  EXPECT_GT(Trel_CommManager::GetSnapshot().counters.malformedDatagrams, 1U);
}

TEST_F(DiscoveryTest, AReplyFromElsewhereDoesNotMakeASatelliteAvailable) {
  StartHost(false);
  Stranger stranger(kPeerAddress);
  std::optional<bool> isAvailable;
  Trel_System system;
  std::jthread asking([&] { isAvailable = Trel_CommManager::VerifySatelliteIsAvailable(kPeerAddress, &system); });
  TCPE_DiscoveryCodec::Query query;
  ASSERT_TRUE(stranger.Hear(&query));
  stranger.Send(kOtherPeerAddress, stranger.Reply(query, "foreign"));
  asking.join();
  EXPECT_EQ(isAvailable, false);
  EXPECT_STREQ(system.GetSystemName(), "foreign");
  EXPECT_EQ(system.GetIPAddress(), kOtherPeerAddress);
}

TEST_F(DiscoveryTest, OnlyThoseWhoShareTheSecretFindEachOther) {
  const SharedSecretFile file{};
  file.Set('1');
  PeerSystem friendly(kPeerAddress);
  file.Set('2');
  PeerSystem foreign(kOtherPeerAddress);
  ASSERT_EQ(friendly.Status() + foreign.Status(), 0);
  friendly.SetSystemName("friendly");
  friendly.SetIsSatellite(true);
  foreign.SetIsSatellite(true);
  file.Set('1');
  StartHost(false);
  Trel_System remembered;
  remembered.SetIPAddress(kOtherPeerAddress);
  Systems systems{{remembered, true}};
  Trel_CommManager::GetSatelliteList(&systems);
  EXPECT_EQ(Texts(systems), "127.0.0.3 friendly 0 available; 127.0.0.4  0 available; ");
  EXPECT_TRUE(Trel_CommManager::VerifySatelliteIsAvailable(kPeerAddress, &remembered));
  EXPECT_EQ(foreign.GetCounters().unauthenticDatagrams, 1U);
  EXPECT_FALSE(foreign.Connect(kHostAddress));
  Trel_CommManager::GetSatelliteList(&systems);
  EXPECT_EQ(Texts(systems), "127.0.0.3 friendly 0 available; ") << "who failed to authenticate is removed";
}

TEST_F(DiscoveryTest, PortsInUseAreToldApart) {
  Trel_CommPreferences preferences = TestPreferences(kHostAddress);
  preferences.SetCommunicationPort(TestPort());
  {
    Sys_UDPSocket other;
    ASSERT_TRUE(other.Register() && other.Bind(0, DiscoveryPort()));
    EXPECT_EQ(Trel_CommManager::Initialize(&preferences, nullptr), eTCPE_Status_DiscoveryPortInUse);
    EXPECT_EQ(Trel_CommManager::GetInitializationReport(),
              "UDP port " + std::to_string(DiscoveryPort()) + " of 127.0.0.2 is in use by another program");
    EXPECT_FALSE(Trel_CommManager::IsInitialized());
  }
  EXPECT_EQ(Trel_CommManager::Initialize(&preferences, nullptr), 0);
  TestSystem other(0);
  TCPE_CommPreferences elsewhere(kHostAddress, DiscoveryPort());
  EXPECT_EQ(other.Initialize(&elsewhere, nullptr), eTCPE_Status_DiscoveryPortInUse);
}

} // namespace
