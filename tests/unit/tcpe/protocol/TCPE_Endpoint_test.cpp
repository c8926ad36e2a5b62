#include "tcpe/protocol/TCPE_Endpoint.h"

#include "tests/support/Hex.h"
#include "tests/support/SimulatedNetwork.h"
#include "tests/support/Times.h"

#include <gtest/gtest.h>

#include <functional>

namespace {

std::string Frame(TCPE_eCmd type, std::uint8_t flags = 0, std::uint32_t serial = 0, const std::string& payload = {},
                  std::uint16_t error = 0) {
  return SimulatedNetwork::Frame({.flags = flags, .type = type, .serial = serial, .error = error}, payload);
}

/// What a stranger sends to be admitted: "TREL", versions, no secret, instance, nonce; connect command with a payload
/// of odd length.
std::string Hello(const std::string& instance = "00*7 99") {
  return FromHex(("5452454c 01 04 00 00 " + instance + " a0a1a2a3a4a5a6a7a8a9aaabacadaeaf").c_str());
}
std::string Connect() { return FromHex("0003 04 01 00 08 02 00 00000005 00000003 3589 0000 616263"); }

/// Systems 0, 1 and 2 have the addresses 10, 20 and 30, system 3 has the address of system 1.
struct Systems : SimulatedNetwork {
  explicit Systems(std::uint32_t seed = 1, bool haveSecret = false) : SimulatedNetwork(seed) {
    for (const std::uint32_t address : {10U, 20U, 30U, 20U}) {
      TCPE_Endpoint::Config config = Config(address);
      config.keys.proved = haveSecret ? Key('x') : nullptr;
      Add(config);
    }
  }
  void Configure(int system, const std::function<void(TCPE_Endpoint::Config&)>& change) {
    change(At(system).config);
    Restart(system);
  }
  std::string Take(int system) { return std::exchange(At(system).log, {}); }
  void Link(int from, int to) {
    SimulatedNetwork::Connect(from, to);
    Run(kSecond / 10);
    const std::string address = std::to_string(At(to).config.localAddress);
    ASSERT_EQ(Take(from), "opened " + address + ", ended " + address + " 0");
    ASSERT_EQ(Take(to), "opened " + std::to_string(At(from).config.localAddress) + " by peer");
  }
};

TEST(TCPE_Endpoint, ConnectsOrSaysWhyNot) {
  using Config = TCPE_Endpoint::Config;
  const struct {
    const char* name;
    int system; ///< whose configuration is changed: 0 connects to 1
    std::function<void(Config&)> change;
    const char* logOf0;
    const char* logOf1 = "";
  } cases[] = {
      {"admitted", 1, [](Config&) {}, "opened 20, ended 20 0", "opened 10 by peer"},
      {"not allowed", 1, [](Config& c) { c.allowConnect = [](auto address) { return address != 10; }; }, "ended 20 14"},
      {"connect command without sense", 1,
       [](Config& c) { c.examineConnect = [](auto, const auto&, auto) { return eTCPE_CommErr_MalformedPayload; }; },
       "ended 20 7"},
      {"full", 1, [](Config& c) { c.maxConnections = 0; }, "ended 20 15"},
      {"full itself", 0, [](Config& c) { c.maxConnections = 0; }, "ended 20 2"},
      {"other numbering", 1, [](Config& c) { c.local.hello.majorVersion = 3; }, "ended 20 16"},
  };
  for (const std::uint32_t largestPiece : {0U, 1U, 17U}) {
    for (const auto& test : cases) {
      SCOPED_TRACE(test.name);
      Systems systems;
      systems.Chop(largestPiece, 1000);
      systems.Configure(test.system, test.change);
      systems.Connect(0, 1);
      systems.Run(4 * kSecond);
      EXPECT_EQ(systems.Take(0), test.logOf0);
      EXPECT_EQ(systems.Take(1), test.logOf1);
      EXPECT_EQ(systems.At(1).endpoint->HalfOpenConnections(), 0U);
    }
  }
}

TEST(TCPE_Endpoint, TellsWhichFramesWereReadAlone) {
  for (const bool haveSecret : {false, true}) {
    Systems systems(1, haveSecret);
    systems.Link(0, 1);
    std::string told;
    systems.program = [&told](int, const auto& event) { told += event.isReadAlone ? "alone " : "not "; };
    const auto [transport, side] = systems.At(0).sides.at(systems.At(0).open.at(20).id);
    const std::size_t size = Frame(7).size() + (haveSecret ? kTCPE_TagSize : 0);
    const struct {
      std::vector<std::size_t> pieces; ///< of two frames
      const char* told;
    } cases[] = {{{size, size}, "alone alone "},
                 {{2 * size}, "not not "},
                 {{1, size - 1, size}, "not alone "},
                 {{size + 1, size - 1}, "not not "},
                 {{size - 1, size + 1}, "not not "}};
    for (const auto& test : cases) {
      std::string bytes;
      systems.tamper = [&bytes](int, std::string& sent) { bytes = std::exchange(sent, {}); };
      systems.Send(0, 20, Frame(7) + Frame(7));
      systems.tamper = nullptr;
      for (const std::size_t piece : test.pieces) {
        systems.Send(*transport, 1 - side, bytes.substr(0, piece));
        bytes.erase(0, piece);
      }
      told.clear();
      systems.Run(kSecond / 100);
      EXPECT_EQ(told, test.told) << "pieces: " << testing::PrintToString(test.pieces);
    }
  }
}

TEST(TCPE_Endpoint, OneOfTwoSimultaneousConnectionsSurvives) {
  for (std::uint32_t seed = 0; seed < 400; ++seed) {
    SCOPED_TRACE(seed);
    Systems systems(seed, seed % 5 < 2);
    systems.Chop(seed % 3 == 0 ? 0 : seed % 20, 1 + seed * 50);
    const bool isAtOnce = seed % 2 == 0;
    const int first = seed % 4 < 2 ? 0 : 1;
    systems.Connect(first, 1 - first);
    systems.Run(isAtOnce ? 0 : systems.Random(60'000));
    systems.Connect(1 - first, first);
    systems.Run(2 * kSecond);
    // Both were told once, and the connection holds.
    ASSERT_TRUE(systems.At(1).open.contains(10));
    const bool isOpenedBy0 = systems.At(1).open[10].openedByPeer;
    EXPECT_EQ(systems.Take(0), isOpenedBy0 ? "opened 20, ended 20 0" : "opened 20 by peer, ended 20 0");
    EXPECT_EQ(systems.Take(1), isOpenedBy0 ? "opened 10 by peer, ended 10 0" : "opened 10, ended 10 0");
    EXPECT_TRUE(isOpenedBy0 || !isAtOnce) << "the one of the lower address is to survive";
    systems.Run(5 * kSecond);
    EXPECT_EQ(systems.Take(0) + systems.Take(1), "");
  }
}

TEST(TCPE_Endpoint, AnAttemptThatGaveWayWaitsForThePeersOwn) {
  for (const bool comes : {true, false}) {
    Systems systems;
    systems.Send(*systems.ConnectToStranger(1, 10), 0, Hello() + Frame(5, 3, 77, "", eTCPE_CommErr_AlreadyConnected));
    systems.Run(8 * kSecond - kMillisecond); // as long as the peer's attempt may take
    EXPECT_EQ(systems.Take(1), "");
    if (comes) {
      systems.Send(systems.ConnectStranger(10, 1), 1, Hello() + Connect());
    }
    systems.Run(2 * kMillisecond);
    EXPECT_EQ(systems.Take(1), comes ? "opened 10 by peer, ended 10 0" : "ended 10 19");
  }
}

TEST(TCPE_Endpoint, AMoveEndsWhatBeganAtTheOldAddress) {
  Systems systems;
  systems.Link(2, 1);
  systems.Send(*systems.ConnectToStranger(1, 10), 0, Hello() + Frame(5, 3, 77, "", eTCPE_CommErr_AlreadyConnected));
  systems.ConnectToStranger(1, 40);
  systems.Send(systems.ConnectStranger(30, 1), 1, Hello() + Connect()); // waits until the one it replaces has answered
  systems.CutAll(2);
  systems.Run(kSecond / 2);
  EXPECT_EQ(systems.Take(1), "");
  systems.Move(1, 21);
  EXPECT_EQ(systems.Take(1), "ended 10 2, ended 40 2, lost 30 1");
  EXPECT_EQ(systems.At(1).endpoint->HalfOpenConnections(), 0U);
  EXPECT_NE(systems.ConnectToStranger(1, 10), nullptr) << "the attempt that waited holds no other one up";
}

TEST(TCPE_Endpoint, ARestartedSystemReplacesItsDeadConnection) {
  for (const int opener : {0, 1}) {
    for (const std::uint32_t largestPiece : {0U, 1U}) {
      Systems systems;
      int asked = 0;
      systems.Configure(0, [&asked](TCPE_Endpoint::Config& config) {
        config.allowConnect = [&asked](auto) { return ++asked != 0; };
      });
      systems.Chop(largestPiece, 0);
      systems.Link(opener, 1 - opener);
      systems.Restart(1);
      systems.Run(kSecond / 2);
      const TCPE_Time begin = systems.Now();
      systems.Connect(1, 0);
      systems.Run(kSecond / 2);
      auto& another = systems.ConnectStranger(20, 0); // does not put it off
      systems.Send(another, 1, Hello() + Connect());
      systems.Run(kSecond / 2);
      EXPECT_EQ(systems.Take(0) + systems.Take(1), "") << "the old connection has a second to answer";
      systems.Run(10 * kMillisecond);
      EXPECT_EQ(systems.Take(0), "lost 20 1, opened 20 by peer");
      EXPECT_EQ(systems.Take(1), "opened 10, ended 10 0");
      EXPECT_LT(systems.At(1).lastLogged, begin + kSecond + 2 * kMillisecond);
      EXPECT_EQ(asked, opener + 2) << "the host is asked once for each newcomer";
      systems.Send(1, 10, Frame(7, 0, 1, std::string(600, 'x'))); // more than fits before a peer is admitted
      systems.Run(kSecond);
      EXPECT_EQ(systems.Take(0), "frame 20 7 (600)");
    }
  }
}

TEST(TCPE_Endpoint, ALiveSystemIsNotReplaced) {
  Systems systems;
  systems.Link(0, 1);
  systems.Connect(3, 0);
  systems.Run(kSecond);
  EXPECT_EQ(systems.Take(3), "ended 10 18");
  // Nor by several at once; who speaks before the verdict gets none.
  auto& patient = systems.ConnectStranger(20, 0);
  auto& hasty = systems.ConnectStranger(20, 0);
  systems.Send(patient, 1, Hello() + Connect());
  systems.Send(hasty, 1, Hello() + Connect() + "?");
  systems.Run(kSecond);
  EXPECT_EQ(patient.sides[0].received.size(), TCPE_Hello::kSize + TCPE_FrameHeader::kSize);
  EXPECT_EQ(hasty.sides[0].received.size(), TCPE_Hello::kSize);
  EXPECT_TRUE(patient.sides[0].hasEnded && hasty.sides[0].hasEnded);
  EXPECT_EQ(systems.Take(0) + systems.Take(1), "");
  EXPECT_EQ(systems.At(0).endpoint->GetCounts().refusals, 3U);
  // When the old connection ends before it has answered, the one that waits is admitted.
  systems.CutAll(1);
  systems.Send(systems.ConnectStranger(20, 0), 1, Hello() + Connect());
  systems.Run(kSecond / 2);
  systems.End(0, 20);
  systems.Run(kSecond / 2);
  EXPECT_EQ(systems.Take(0), "opened 20 by peer");
}

TEST(TCPE_Endpoint, ConnectionsOfDifferentEnginesAreNoPair) {
  Systems systems;
  systems.Connect(0, 1);
  systems.Run(250); // the peer's hello has come
  systems.Restart(1);
  systems.Connect(1, 0);
  systems.Run(kSecond);
  EXPECT_EQ(systems.Take(0), "opened 20 by peer, ended 20 0");
  EXPECT_EQ(systems.Take(1), "opened 10, ended 10 0");
}

TEST(TCPE_Endpoint, AnIdleConnectionBeatsAndASilentOneIsLost) {
  Systems systems;
  auto& stranger = systems.ConnectStranger(20, 0);
  systems.Send(stranger, 1, Hello() + Connect());
  systems.Run(kMillisecond);
  // Hello, then the empty reply to the connect command, and that nothing has been finished yet.
  std::string expected = FromHex("5452454c 01 04 00 00 0102030405060701 00*16") +
                         FromHex("0000 04 01 00 01 01 02 00000005 00000003 faf3 0000") +
                         FromHex("0004 04 01 00 00 01 02 00000000 00000000 faf8 0000 00000000");
  EXPECT_EQ(stranger.sides[0].received, expected);
  systems.Run(2 * kSecond);
  const std::string heartbeat = FromHex("0000 04 01 00 00 01 02 00000000 00000000 fafc 0000");
  expected += heartbeat + heartbeat;
  EXPECT_EQ(stranger.sides[0].received, expected);
  systems.At(0).open[20].session->NoteSent(systems.Now()); // a frame of the host saves one
  systems.Run(kSecond - 2 * kMillisecond);
  EXPECT_EQ(systems.Take(0), "opened 20 by peer");
  EXPECT_EQ(stranger.sides[0].received, expected);
  systems.Run(kSecond);
  EXPECT_EQ(systems.Take(0), "lost 20 1");
  EXPECT_TRUE(stranger.sides[0].hasEnded);
}

TEST(TCPE_Endpoint, AFrameIsCompleteWithinFiveSeconds) {
  Systems systems;
  systems.Link(1, 0);
  const auto dribble = [&systems](const std::string& bytes, std::size_t size, TCPE_Time pause) {
    for (std::size_t i = 0; i < bytes.size() && systems.At(1).open.contains(10); i += size) {
      systems.Send(1, 10, bytes.substr(i, size));
      systems.Run(pause);
    }
  };
  dribble(Frame(7, 0, 0, "abcde"), 1, kSecond / 5); // complete just in time
  EXPECT_EQ(systems.Take(0), "frame 20 7 (5)");
  dribble(Frame(7, 0, 0, "abcde") + Frame(7) + Frame(7) + Frame(7, 0, 0, "abcde"), 11, kSecond * 4 / 5);
  EXPECT_EQ(systems.Take(0), "frame 20 7 (5), frame 20 7 (0), frame 20 7 (0), frame 20 7 (5)");
  systems.Run(kSecond);
  const TCPE_Time begin = systems.Now();
  dribble(Frame(7, 0, 0, "abcdefghij"), 1, kSecond / 5);
  EXPECT_EQ(systems.Take(0), "lost 20 2");
  EXPECT_EQ(systems.Counts(0).unfinished, 1U);
  EXPECT_EQ(systems.At(0).lastLogged, begin + 100 + 5 * kSecond);
  EXPECT_EQ(systems.Take(1), "lost 10 1");
}

TEST(TCPE_Endpoint, WhoIsNotReadIsNotTimedAsLongAsItsCommandsAreFinished) {
  Systems systems;
  auto& stranger = systems.ConnectStranger(20, 0);
  const std::string last = Frame(8);
  systems.Send(stranger, 1, Hello() + Connect() + Frame(7) + Frame(7) + Frame(7) + last.substr(0, 5));
  systems.Run(kMillisecond);
  EXPECT_EQ(systems.Take(0), "opened 20 by peer, frame 20 7 (0), frame 20 7 (0), frame 20 7 (0)");
  const auto open = systems.At(0).open.at(20);
  TCPE_Endpoint& endpoint = *systems.At(0).endpoint;
  endpoint.Pause(open.id, systems.Now());
  for (int i = 0; i < 3; ++i) {
    systems.Run(2 * kSecond);
    open.session->NoteFinished();
  }
  endpoint.Resume(open.id, systems.Now());
  systems.Send(stranger, 1, last.substr(5));
  systems.Run(2 * kSecond);
  EXPECT_EQ(systems.Take(0), "frame 20 8 (0)");
  endpoint.Pause(open.id, systems.Now());
  systems.Run(4 * kSecond);
  EXPECT_EQ(systems.Take(0), "lost 20 8");
  EXPECT_TRUE(stranger.sides[0].received.ends_with(
      FromHex("0000 04 01 00 02 01 00 00000000 00000000 faf4 0008"))); // which says so
}

TEST(TCPE_Endpoint, WhoIsWrongAtOnceIsGoneAtOnce) {
  Systems systems;
  // Another hello, our own; no connect command, one that is a reply or too long.
  for (const std::string& bytes :
       {"X" + Hello().substr(1), Hello().substr(0, 4) + "\x02" + Hello().substr(5), Hello("0102030405060701"),
        Hello() + Frame(6, 8), Hello() + Frame(0), Hello() + Frame(5, 1),
        Hello() + Frame(5, 8, 0, std::string(513, 'x')), Hello() + Connect().substr(0, 22) + "?"}) {
    auto& stranger = systems.ConnectStranger(30, 0);
    systems.Send(stranger, 1, bytes);
    systems.Run(kMillisecond);
    EXPECT_TRUE(stranger.sides[0].hasEnded);
    EXPECT_EQ(stranger.sides[0].received.size(), TCPE_Hello::kSize);
  }
  EXPECT_EQ(systems.Take(0), "");
}

TEST(TCPE_Endpoint, OnlyTheReplyToItsConnectCommandAdmits) {
  const struct {
    std::string reply;
    const char* log;
  } cases[] = {{Frame(5, 1, 77) + Frame(7), "opened 20, ended 20 0, frame 20 7 (0)"},
               {Frame(5, 1, 78), "ended 20 2"},
               {Frame(6, 1, 77), "ended 20 2"},
               {Frame(5, 8, 77), "ended 20 2"},
               {Frame(5, 3, 77, "", 15), "ended 20 15"},
               {Frame(5, 3, 77, "", 0), "ended 20 2"}}; // refused without a reason
  for (const auto& test : cases) {
    Systems systems;
    systems.Send(*systems.ConnectToStranger(0, 20), 0, Hello() + test.reply);
    systems.Run(kSecond);
    EXPECT_EQ(systems.Take(0), test.log);
  }
}

TEST(TCPE_Endpoint, EveryWrongHeaderFieldIsMalformedDataOnce) {
  const std::string good = Frame(7, 0, 5, "abc");
  const auto expect = [](const std::string& frame, const std::string& log) {
    Systems systems;
    systems.Link(1, 0);
    systems.Send(1, 10, frame + Frame(7));
    systems.Run(kSecond / 2);
    EXPECT_EQ(systems.Take(0), log);
    EXPECT_EQ(systems.Take(1), log.starts_with("lost") ? "lost 10 1" : "");
    EXPECT_EQ(systems.Counts(0).malformed, log.starts_with("lost") ? 1U : 0U);
  };
  const auto altered = [&good](std::size_t offset, int bits) {
    std::string frame = good;
    frame[offset] = static_cast<char>(frame[offset] ^ bits);
    return frame;
  };
  expect(Frame(5, 8), "lost 20 2"); // a second introduction
  for (std::size_t offset = 0; offset < good.size(); ++offset) {
    SCOPED_TRACE(offset);
    expect(altered(offset, offset == 0 ? 0x40 : 1), "lost 20 2");
  }
  expect(altered(1, 4), "lost 20 2"); // longer: ends in the next frame
  for (const int flag : {4, 0x10, 0x20, 0x40, 0x80}) {
    expect(SimulatedNetwork::Sealed(altered(5, flag)), "lost 20 2");
  }
  expect(SimulatedNetwork::Sealed(altered(2, 7)), "lost 20 2");
  for (const std::size_t offset : {3U, 4U, 6U, 7U, 8U, 18U}) { // these may vary
    const std::string type = offset == 8 ? "-16777209" : "7";
    expect(SimulatedNetwork::Sealed(altered(offset, 0xff)), "frame 20 " + type + " (3), frame 20 7 (0)");
  }
  expect(Frame(0, 0, 0, "dropped") + Frame(-5), "frame 20 -5 (0), frame 20 7 (0)");
  expect(Frame(7, 0, 0, std::string(16384, 'x')), "frame 20 7 (16384), frame 20 7 (0)");
  expect(Frame(7, 0, 0, std::string(16385, 'x')), "lost 20 2");
}

TEST(TCPE_Endpoint, NeverHasMoreConnectionsThanItMay) {
  Systems systems;
  systems.Configure(0, [](TCPE_Endpoint::Config& config) { config.maxConnections = 1; });
  systems.Connect(0, 1);
  systems.Connect(0, 2);
  systems.Run(kSecond);
  EXPECT_EQ(systems.Take(0), "opened 20, ended 20 0, ended 30 2");
}

} // namespace
