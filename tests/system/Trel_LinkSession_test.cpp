#include <trel/Trel.h>
#include <trel/host/Trel_LinkSession.h>

#include "tests/support/Hex.h"
#include "tests/support/NumberingTest.h"
#include "tests/support/PeerSystem.h"
#include "tests/support/ReportCollector.h"
#include "tests/support/TestSystem.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Kind = Trel_LinkSession::EventKind;
using ControlAnswer = Trel_LinkSession::ControlAnswer;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

/// A session of this process, and peers that play the other side by hand.
class LinkSessionTest : public NumberingTest {
protected:
  void TearDown() override {
    mSession.reset();
    mPeers.clear();
    Trel_CommManager::Terminate();
    NumberingTest::TearDown();
  }

  void StartSession(Trel_LinkSession::Settings settings) {
    settings.onEvent = [this, also = settings.onEvent](const Trel_LinkSession::Event& event) {
      {
        const std::lock_guard lock(mMutex);
        mEvents.push_back(event);
      }
      if (also) {
        also(event);
      }
    };
    mSession.emplace(std::move(settings));
    Trel_CommPreferences preferences = TestPreferences(kHostAddress);
    Trel_CommManager::SetSystemName("Stage");
    Trel_CommManager::SetUniqueID(7);
    ASSERT_EQ(Trel_CommManager::Initialize(&preferences, &Trel_LinkSession::OnNetworkError), 0);
    ASSERT_TRUE(mSession->Start());
  }
  PeerSystem& AddPeer(std::uint32_t address, std::int32_t uniqueID) {
    PeerSystem& peer = *mPeers.emplace_back(std::make_unique<PeerSystem>(address));
    EXPECT_EQ(peer.Status(), 0);
    peer.SetUniqueID(uniqueID);
    // Clock and state are no part of the sequences.
    peer.Ignore({"ResetClock", "UpdateRunningTime", "LastUpdateRunningTimeValid", "ClockLockState", "SendState",
                 "UpdateLinkState", "UpdateOnlineState", "VideoReferenceAvailable", "VideoReferenceFormat",
                 "SetLoopPlay", "SetCurrentSelection", "UpdateGroupEnable"});
    peer.SetSystemName(("Peer " + std::to_string(uniqueID)).c_str());
    return peer;
  }
  template <class Command>
  static TCPE_CommErr Send(PeerSystem& from, Command&& command, std::uint32_t to = kHostAddress) {
    command.SetIPAddressTo(to);
    from.SendCommand(&command);
    return command.GetError();
  }

  std::vector<Trel_LinkSession::Event> Events(Kind kind) {
    const std::lock_guard lock(mMutex);
    std::vector<Trel_LinkSession::Event> events;
    std::copy_if(mEvents.begin(), mEvents.end(), std::back_inserter(events),
                 [kind](const auto& event) { return event.kind == kind; });
    return events;
  }
  /// The text of the n-th event of a kind; waits for it.
  std::string TextOf(Kind kind, std::size_t n = 1) {
    return Eventually([&] { return Events(kind).size() >= n; }) ? Events(kind)[n - 1].text : "nothing has happened";
  }

  /// A peer connects and goes through the sequence up to what is particular to the mesh.
  void Join(PeerSystem& peer, std::int32_t place, const std::string& uniqueIDOrAddress) {
    ASSERT_TRUE(peer.Connect(kHostAddress));
    EXPECT_EQ(peer.Next(), "SetMasterSystem IPAddress=127.0.0.2");
    EXPECT_EQ(peer.Next(), "SetOrderNumber OrderNumber=" + std::to_string(place) + ' ' + uniqueIDOrAddress);
    EXPECT_THAT(peer.Next(), StartsWith("ListSystems"));
  }
  static void SendList(PeerSystem& from, const std::vector<std::pair<std::uint32_t, std::int32_t>>& places) {
    std::vector<Trel_System> systems(places.size());
    for (std::size_t index = 0; index < places.size(); ++index) {
      systems[index].SetIPAddress(places[index].first);
      systems[index].SetOrderNumber(places[index].second);
      systems[index].SetSystemName("Studio B");
    }
    Trel_Cmd_ListSystems list;
    list.SetSystems(systems);
    Send(from, list);
  }
  std::optional<Trel_LinkSession> mSession;
  std::vector<std::unique_ptr<PeerSystem>> mPeers;

private:
  std::mutex mMutex;
  std::vector<Trel_LinkSession::Event> mEvents;
};

INSTANTIATE_NUMBERING_TESTS(LinkSessionTest);

TEST_P(LinkSessionTest, MasterTakesSatellitesThroughTheSequence) {
  ReportCollector reports;
  const auto fails = [](const auto&) { throw std::runtime_error("the host is broken"); }; // and hinders nothing
  StartSession({.isMaster = true, .wantsMesh = true, .onEvent = fails, .onConnect = fails});
  PeerSystem& first = AddPeer(kPeerAddress, 8);
  Join(first, 2, IsCurrent() ? "UniqueID=8" : "IPAddress=127.0.0.3");
  if (IsCurrent()) {
    EXPECT_EQ(first.Next(), "AllConnectionsComplete");
  }
  EXPECT_FALSE(mSession->IsLinked());
  EXPECT_EQ(Send(first, Trel_Cmd_ConnectComplete()), eTCPE_CommErr_None);
  EXPECT_TRUE(mSession->IsLinked());
  EXPECT_EQ(first.Next(),
            IsCurrent() ? "SetOrderNumber OrderNumber=1 UniqueID=7" : "SystemInControl SystemInControl=127.0.0.2");
  if (IsCurrent()) {
    EXPECT_EQ(first.Next(), "SystemInControl UniqueID=7");
  }
  EXPECT_THAT(first.Next(), StartsWith("ListSystems"));

  PeerSystem& second = AddPeer(kOtherPeerAddress, 9);
  Join(second, 3, IsCurrent() ? "UniqueID=9" : "IPAddress=127.0.0.4");
  if (IsCurrent()) {
    EXPECT_THAT(second.Next(),
                StartsWith("ConnectTo ConnectToIPAddress=127.0.0.3 ConnectToPort=" + std::to_string(TestPort()) +
                           " UniqueSystemID=8 SystemName=\"Peer 8\" Hostname="));
    Trel_Cmd_ConnectToComplete done;
    done.SetConnectionIDIP(kPeerAddress);
    done.SetSuccess(true);
    EXPECT_FALSE(second.HasReceived()) << "before it is connected to all";
    Send(second, done);
    EXPECT_EQ(second.Next(), "AllConnectionsComplete");
    EXPECT_EQ(TextOf(Kind::meshConnected), "Peer 9 at 127.0.0.4 is connected to Peer 8 at 127.0.0.3.");
  } else {
    EXPECT_EQ(second.Next(), "ConnectTo ConnectToIPAddress=127.0.0.3");
  }
  EXPECT_EQ(Send(second, Trel_Cmd_ConnectComplete()), eTCPE_CommErr_None);
  EXPECT_EQ(mSession->GetLinkedAddresses(), (std::set{kPeerAddress, kOtherPeerAddress}));
  EXPECT_THAT(first.Next(), StartsWith("ListSystems")) << "the list has changed for all";

  Trel_Cmd_GetSystemInformation information;
  EXPECT_EQ(Send(first, information), eTCPE_CommErr_None);
  EXPECT_STREQ(information.GetName(), "Stage");
  EXPECT_EQ(information.GetOrderNumber(), 1);
  EXPECT_EQ(information.GetUniqueID(), IsCurrent() ? 7 : 0);
}

TEST_P(LinkSessionTest, SatelliteGoesThroughTheSequenceAndTakesControl) {
  PeerSystem& master = AddPeer(kPeerAddress, 8);
  PeerSystem& other = AddPeer(kOtherPeerAddress, 9);
  StartSession({.masterAddress = kPeerAddress});
  EXPECT_THAT(master.Next(), StartsWith("Connect "));
  EXPECT_EQ(mSession->RequestControl(), ControlAnswer::noLink);

  Send(master, Trel_Cmd_SetMasterSystem(kPeerAddress));
  Send(master, Trel_Cmd_SetOrderNumber(5, 0)); // without identifier or address: the receiver's own
  SendList(master, {{kHostAddress, 5}, {kPeerAddress, 1}});
  Trel_Cmd_ConnectTo connectTo;
  connectTo.SetConnectToIPAddress(kOtherPeerAddress);
  connectTo.SetUniqueSystemID(9); // its port is left out: that of the link
  Send(master, connectTo);
  EXPECT_THAT(other.Next(), StartsWith("Connect "));
  if (IsCurrent()) {
    EXPECT_THAT(other.Next(), AllOf(StartsWith("DoConnectTo SystemName=\"Stage\""),
                                    HasSubstr("UniqueSystemIDFrom=7 UniqueSystemIDTo=9")));
    Trel_Cmd_DoConnectToComplete done;
    done.SetSuccess(true);
    Send(other, done);
    EXPECT_THAT(master.Next(), StartsWith("ConnectToComplete Success=1 ConnectionIDIP=127.0.0.4"));
    EXPECT_FALSE(master.HasReceived());
    Send(master, Trel_Cmd_AllConnectionsComplete());
  }
  EXPECT_EQ(master.Next(), "ConnectComplete");
  EXPECT_TRUE(Eventually([this] { return mSession->IsLinked(); }));
  EXPECT_EQ(Trel_CommManager::GetMasterSystemIPAddress(), kPeerAddress);
  EXPECT_EQ(TextOf(Kind::orderNumber), "This system has place 5.");
  EXPECT_EQ(mSession->GetSystems().at(1).GetIPAddress(), kHostAddress);
  EXPECT_EQ(mSession->GetLinkedAddresses(), (std::set{kPeerAddress, kOtherPeerAddress}));

  master.SetReply(FromHex("00"));
  EXPECT_EQ(mSession->RequestControl(), ControlAnswer::busy);
  EXPECT_EQ(master.Next(), "RequestControl");
  master.SetReply(FromHex("01"));
  std::jthread asks([this] { EXPECT_EQ(mSession->RequestControl(), ControlAnswer::granted); });
  EXPECT_EQ(master.Next(), "RequestControl");
  EXPECT_FALSE(mSession->HasControl()) << "by the reply alone";
  Trel_Cmd_SystemInControl inControl;
  inControl.SetUniqueID(7);
  inControl.SetSystemInControl(kHostAddress);
  EXPECT_EQ(Send(other, inControl), eTCPE_CommErr_None);
  EXPECT_FALSE(mSession->HasControl()) << "by the word of one that is not its master";
  Send(master, inControl);
  asks.join();
  EXPECT_TRUE(mSession->HasControl());
  Trel_Cmd_RequestControl letGo;
  Send(master, letGo);
  EXPECT_TRUE(letGo.GetHasControl());
  EXPECT_FALSE(mSession->HasControl());
}

TEST_P(LinkSessionTest, ASatelliteSaysWhatItFoundAndWhyItIsRefused) {
  PeerSystem& master = AddPeer(kPeerAddress, 8);
  const auto findMasters = [](std::map<Trel_System, bool>* masters) {
    for (const std::uint32_t address : {kOtherPeerAddress, kPeerAddress, kHostAddress - 1}) {
      Trel_System found;
      found.SetIPAddress(address);
      masters->emplace(found, address >= kPeerAddress);
    }
  };
  StartSession({.firstPause = 20'000, .longestPause = 80'000, .findMasters = findMasters});
  EXPECT_THAT(TextOf(Kind::masterFound), AllOf(StartsWith("Found the master 127.0.0.3."), HasSubstr("127.0.0.4"),
                                               HasSubstr("127.0.0.1 (not available)")));
  EXPECT_THAT(master.Next(), StartsWith("Connect "));
  master.Disconnect(kHostAddress);
  EXPECT_THAT(TextOf(Kind::refused), StartsWith("Refused by 127.0.0.3: it has as many satellites as it allows"));
  EXPECT_THAT(master.Next(), StartsWith("Connect "));
  SendList(master, {{kOtherPeerAddress, 0}});
  master.Disconnect(kHostAddress);
  EXPECT_THAT(TextOf(Kind::refused, 2), HasSubstr("identifier 7 is already used by Studio B at 127.0.0.4."));
  TextOf(Kind::waiting, 2);
  EXPECT_GE(Events(Kind::waiting).back().value, 60'000);
}

TEST_P(LinkSessionTest, NewsOfAnEarlierConnectionDoesNotEndThePresentOne) {
  static std::atomic<bool> isHeldUp;
  static std::atomic<bool> mayGoOn;
  isHeldUp = mayGoOn = false;
  PeerSystem& master = AddPeer(kPeerAddress, 8);
  StartSession({.masterAddress = kPeerAddress});
  const auto goThroughTheSequence = [&] {
    SendList(master, {{0, 0}});
    if (IsCurrent()) {
      Send(master, Trel_Cmd_AllConnectionsComplete());
    }
    EXPECT_EQ(master.Next(), "ConnectComplete");
    EXPECT_TRUE(Eventually([this] { return mSession->IsLinked(); }));
  };
  EXPECT_THAT(master.Next(), StartsWith("Connect "));
  goThroughTheSequence();

  // A handler of the host holds up what else the master says, which has left by then.
  Trel_Command::SetDoItCommand(Trel_Cmd_StopPlayback::GetCommandID(), [](TCPE_Command*) {
    isHeldUp = true;
    EXPECT_TRUE(Eventually([] { return mayGoOn.load(); }));
  });
  Send(master, Trel_Cmd_StopPlayback());
  EXPECT_TRUE(Eventually([] { return isHeldUp.load(); }));
  if (IsCurrent()) {
    Send(master, Trel_Cmd_AllConnectionsComplete());
  }
  EXPECT_TRUE(master.Disconnect(kHostAddress));
  EXPECT_TRUE(Eventually([] { return !Trel_CommManager::IsConnected(kPeerAddress); }));
  EXPECT_TRUE(mSession->DisconnectSystem(kPeerAddress) && mSession->Start()); // the host tries it anew
  EXPECT_THAT(master.Next(), StartsWith("Connect "));
  mayGoOn = true;
  EXPECT_TRUE(Eventually([] {
    const TCPE_HandlerLoad load = Trel_CommManager::GetSnapshot().peers.at(0).handlers;
    return load.running + load.waiting == 0;
  }));
  EXPECT_FALSE(master.HasReceived()) << "the sequence was that of the earlier connection";
  goThroughTheSequence();
  EXPECT_TRUE(Eventually([this] { return Events(Kind::linked).size() == 2; }));
  EXPECT_TRUE(Events(Kind::refused).empty() && Events(Kind::lost).empty());
  Trel_Command::SetDoItCommand(Trel_Cmd_StopPlayback::GetCommandID(), nullptr);
}

TEST_P(LinkSessionTest, StartFromAnEventDoesNotWaitForStop) {
  std::atomic<int> connections = 0;
  StartSession({.isMaster = true, .onEvent = [&](const Trel_LinkSession::Event& event) {
                  if (event.kind == Kind::connected && ++connections == 1) {
                    const std::int64_t end = Sys_Clock::RawMicroseconds() + 100'000;
                    while (Sys_Clock::RawMicroseconds() < end) {
                      mSession->Start(); // Stop begins meanwhile, and waits for this
                      mSession->DisconnectSystem(kOtherPeerAddress);
                    }
                  }
                }});
  PeerSystem& peer = AddPeer(kPeerAddress, 8);
  ASSERT_TRUE(peer.Connect(kHostAddress));
  ASSERT_TRUE(Eventually([&] { return connections == 1; }));
  mSession->Stop();
  EXPECT_TRUE(Eventually([&] { return !peer.IsConnected(kHostAddress); }));
  peer.Connect(kHostAddress);
  EXPECT_TRUE(Eventually([&] { return !peer.IsConnected(kHostAddress); })) << "a stopped master";
  EXPECT_TRUE(mSession->Start());
  EXPECT_TRUE(peer.Connect(kHostAddress));
  mSession->Stop(); // before what its events use
}

TEST_P(LinkSessionTest, AConnectionIsToldBeforeItsFirstCommandWhateverTheSessionDoes) {
  std::atomic<bool> mayGoOn = false;
  std::atomic<int> connections = 0;
  StartSession({.isMaster = true,
                .onEvent =
                    [&](const auto& event) {
                      EXPECT_TRUE(event.kind != Kind::connected || Eventually([&] { return mayGoOn.load(); }));
                    },
                .onConnect = [&](std::uint32_t address) { connections += address == kPeerAddress ? 1 : 0; }});
  PeerSystem& peer = AddPeer(kPeerAddress, 8);
  for (const int connection : {1, 2}) {
    ASSERT_TRUE(peer.Connect(kHostAddress));
    EXPECT_EQ(Send(peer, Trel_Cmd_GetSystemInformation()), eTCPE_CommErr_None);
    EXPECT_EQ(connections, connection);
    peer.Disconnect(kHostAddress);
  }
  mayGoOn = true;
  mSession->Stop(); // before what its events use
}

} // namespace
