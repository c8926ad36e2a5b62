#include "tcpe/protocol/TCPE_DiscoveryResponder.h"
#include "tests/support/Hex.h"
#include "tests/support/SimulatedNetwork.h"
#include "tests/support/Times.h"

#include <gtest/gtest.h>

namespace {

/// Systems 0 and 1 have the addresses 10 and 20 and, if they have one, the same secret.
struct Doors : SimulatedNetwork {
  explicit Doors(bool haveSecret, std::uint32_t seed = 1, std::size_t remembered = 256)
      : SimulatedNetwork(seed), mHasSecret(haveSecret) {
    for (const std::uint32_t address : {10U, 20U}) {
      TCPE_Endpoint::Config config = Config(address);
      config.limits.maxFailedAddresses = remembered;
      config.keys.proved = haveSecret ? Key('x') : nullptr;
      Add(config);
    }
  }
  std::string Hello() const {
    std::string hello = FromHex("5452454c 01 04 00 00 00*7 99 a0a1a2a3a4a5a6a7a8a9aaabacadaeaf");
    hello[6] = mHasSecret ? 1 : 0;
    return hello;
  }
  static std::string WrongProof() {
    return Frame({.flags = kTCPE_Flag_ReplyWanted, .type = 4}, std::string(TCPE_AuthenticationKey::kSize, '?'));
  }
  std::string Take(int system) { return std::exchange(At(system).log, {}); }
  std::size_t HalfOpen() { return At(0).endpoint->HalfOpenConnections(); }

  /// Strangers come to system 0, one after the other from the addresses from `first` on, each with `bytes`.
  void Flood(std::uint32_t first, std::uint32_t addresses, TCPE_Time pause, const std::string& bytes) {
    mFlooding = [=, this] {
      Send(ConnectStranger(first + mFlooded++ % addresses, 0), 1, bytes);
      After(pause, mFlooding);
    };
    mFlooding();
  }
  /// Until system 1 is connected to system 0, which it tries again and again; the time that it took.
  TCPE_Time Link(TCPE_Time pause, TCPE_Time atMost) {
    const TCPE_Time begin = Now();
    for (TCPE_Time next = begin; !At(0).open.contains(20) && Now() < begin + atMost; Run(kMillisecond)) {
      if (Now() >= next && At(1).connecting.empty()) {
        Connect(1, 0);
        next = Now() + pause;
      }
    }
    return Now() - begin;
  }

private:
  bool mHasSecret;
  std::uint32_t mFlooded = 0;
  std::function<void()> mFlooding;
};

TEST(TCPE_Doors, StrangersKeepNobodyOut) {
  enum Kind { silent, hello, wrongProof };
  const struct {
    std::uint32_t first, addresses;
    TCPE_Time pause;
    Kind kind;
    TCPE_Time limit;
    bool isTold[2]; ///< without a secret, with one
  } cases[] = {{100, 1, kMillisecond, silent, 2 * kSecond, {true, true}},
               {100, 4, kMillisecond, hello, 2 * kSecond, {true, true}},
               {100, 254, kMillisecond, silent, 2 * kSecond, {true, true}},
               {100, 254, 30 * kMillisecond, hello, 2 * kSecond, {false, false}}, // there are places enough
               {100, 254, kMillisecond, wrongProof, 2 * kSecond, {false, false}},
               {20, 1, 10 * kMillisecond, silent, 10 * kSecond, {true, true}},
               {20, 1, 10 * kMillisecond, hello, 10 * kSecond, {true, true}},
               {20, 1, 2 * kSecond, wrongProof, kSecond / 5, {false, false}},
               {20, 1, 10 * kMillisecond, wrongProof, 10 * kSecond, {false, true}}};
  for (const bool haveSecret : {false, true}) {
    for (const auto& test : cases) {
      SCOPED_TRACE(testing::Message() << "case " << &test - cases << (haveSecret ? " with" : " without")
                                      << " a secret");
      Doors doors(haveSecret);
      doors.Flood(test.first, test.addresses, test.pause,
                  test.kind == silent  ? ""
                  : test.kind == hello ? doors.Hello()
                                       : doors.Hello() + Doors::WrongProof());
      doors.Run(kSecond);
      EXPECT_LE(doors.Link(kSecond / 10, 20 * kSecond), test.limit);
      doors.Run(4 * kSecond);
      EXPECT_TRUE(doors.At(0).open.contains(20)) << "who is linked stays so";
      EXPECT_EQ(doors.At(0).floods.size(), test.isTold[haveSecret ? 1 : 0] ? 1U : 0U);
    }
  }
}

TEST(TCPE_Doors, OfThoseWithLeastProvedOneOfTheAddressWithMostGivesWay) {
  std::set<std::size_t> gone;
  for (std::uint32_t seed = 1; seed <= 40; ++seed) {
    Doors doors(true, seed);
    const auto come = [&doors](std::uint32_t address) {
      auto& stranger = doors.ConnectStranger(address, 0);
      doors.Run(kMillisecond);
      return &stranger;
    };
    std::vector<SimulatedNetwork::Transport*> most;
    std::vector<SimulatedNetwork::Transport*> others;
    for (std::uint32_t i = 0; i < 156; ++i) {
      others.push_back(come(100 + i));
    }
    for (int i = 0; i < 4; ++i) {
      most.push_back(come(50));
    }
    ASSERT_EQ(doors.HalfOpen(), 160U);
    const auto hasEnded = [](const auto* transport) { return transport->sides[0].hasEnded; };
    others.push_back(come(60));
    ASSERT_EQ(std::count_if(most.begin(), most.end(), hasEnded), 1);
    gone.insert(static_cast<std::size_t>(std::find_if(most.begin(), most.end(), hasEnded) - most.begin()));
    others.push_back(come(61));
    others.push_back(come(62));
    EXPECT_EQ(std::count_if(most.begin(), most.end(), hasEnded), 3);
    EXPECT_EQ(std::count_if(others.begin(), others.end(), hasEnded), 0);
    EXPECT_EQ(doors.HalfOpen(), 160U);
    EXPECT_EQ(doors.At(0).floods, std::vector<std::uint32_t>{50});
  }
  EXPECT_EQ(gone.size(), 4U) << "drawn at random";
}

/// Of a system that connects anew while its old connection is being probed.
TEST(TCPE_Doors, WhoHasProvedDoesNotGiveWay) {
  for (const bool haveSecret : {false, true}) {
    Doors doors(haveSecret);
    doors.Link(kSecond, kSecond);
    doors.Take(1);
    doors.Restart(1);
    doors.Connect(1, 0);
    doors.Run(10 * kMillisecond);
    doors.Flood(20, 1, kMillisecond, doors.Hello());
    doors.Run(2 * kSecond);
    EXPECT_EQ(doors.Take(0), "opened 20 by peer, lost 20 1, opened 20 by peer");
    EXPECT_EQ(doors.Take(1), "opened 10, ended 10 0");
  }
}

TEST(TCPE_Doors, AtAMarkedAddressTheSecretCanBeProved) {
  Doors doors(true);
  std::string asked;
  doors.At(0).config.allowConnect = [&](std::uint32_t address) {
    asked += doors.At(0).endpoint->HasAuthenticationFailed(address, doors.Now()) ? "marked " : "not marked ";
    return true;
  };
  doors.Restart(0);
  const auto guess = [&doors](const std::string& more = {}) {
    auto& guesser = doors.ConnectStranger(20, 0);
    doors.Send(guesser, 1, doors.Hello() + Doors::WrongProof() + more);
    return &guesser;
  };
  guess();
  doors.Run(kMillisecond);
  EXPECT_EQ(doors.Take(0), "unproved 20");
  const auto* waiting = guess();
  guess("?");
  doors.Run(kMillisecond);
  EXPECT_EQ(doors.HalfOpen(), 1U) << "nobody speaks before the verdict";
  doors.Connect(1, 0);
  doors.Run(90 * kMillisecond);
  EXPECT_FALSE(waiting->sides[0].hasEnded);
  EXPECT_EQ(doors.Take(0) + doors.Take(1), "");
  doors.Run(200 * kMillisecond); // whichever is drawn first
  EXPECT_TRUE(waiting->sides[0].hasEnded);
  EXPECT_EQ(doors.Take(1), "opened 10, ended 10 0");
  EXPECT_EQ(asked, "not marked ");
}

TEST(TCPE_Doors, TenProofsASecondAreExaminedOfOneAddressAndOfAllAsManyAsAreRemembered) {
  for (const std::uint32_t addresses : {1U, 3U, 9U}) {
    constexpr std::uint32_t kRemembered = 4;
    Doors doors(true, 1, kRemembered);
    doors.Flood(1, addresses, kMillisecond, doors.Hello() + Doors::WrongProof());
    doors.Run(10 * kSecond);
    const std::uint64_t examined = doors.Counts(0).unproved + doors.Counts(0).turnedAway;
    EXPECT_GE(examined, std::min(addresses, kRemembered) * 95U);
    EXPECT_LE(examined, std::min(addresses, kRemembered) * 100U);
    EXPECT_LE(doors.Link(kSecond, 20 * kSecond), 2 * kSecond) << "nobody else's addresses are examined first always";
    if (addresses < kRemembered) {
      EXPECT_EQ(doors.Counts(0).unproved, addresses);
      EXPECT_EQ(doors.Take(0), addresses == 1 ? "unproved 1, opened 20 by peer"
                                              : "unproved 1, unproved 2, unproved 3, opened 20 by peer");
    }
  }
}

/// With the longest pause between attempts that a satellite makes.
TEST(TCPE_Doors, WhoGuessesFromASystemsOwnAddressDoesNotKeepItOut) {
  for (std::uint32_t seed = 1; seed <= 100; ++seed) {
    Doors doors(true, seed);
    doors.Flood(20, 1, 10 * kMillisecond, doors.Hello() + Doors::WrongProof());
    doors.Run(kSecond / 2);
    ASSERT_LE(doors.Link(5 * kSecond, 20 * kSecond), 10 * kSecond) << seed;
  }
}

/// Who is on the way can say so, but nothing else, before frames have tags.
TEST(TCPE_Doors, OfARefusalWithoutATagTheAuthenticationErrorAloneIsTaken) {
  for (const TCPE_eCmd type : {4, 5, 0}) {
    for (std::uint16_t error = 0; error <= 20; ++error) {
      for (const std::uint8_t flags : {std::uint8_t{2}, std::uint8_t{3}}) {
        Doors doors(true);
        doors.Send(*doors.ConnectToStranger(0, 20), 0,
                   doors.Hello() + Doors::Frame({.flags = flags, .type = type, .error = error}));
        doors.Run(kMillisecond);
        const bool isTaken = type == 4 && error == eTCPE_CommErr_Authentication;
        EXPECT_EQ(doors.Take(0), isTaken ? "ended 20 17" : "ended 20 2") << type << ' ' << error;
        EXPECT_EQ(doors.Counts(0).malformed, isTaken ? 0U : 1U);
      }
    }
  }
}

TEST(TCPE_Doors, AFloodIsToldEveryTenSeconds) {
  Doors doors(false);
  doors.Flood(100, 50, 10 * kMillisecond, "");
  doors.Run(25 * kSecond);
  EXPECT_EQ(doors.At(0).floods.size(), 3U);
}

TEST(TCPE_Doors, WhatStrangersCanMakeAHostSayIsBounded) {
  for (const bool haveSecret : {false, true}) {
    Doors doors(haveSecret);
    std::string bytes = doors.Hello() + (haveSecret ? Doors::WrongProof() : "");
    bytes[6] = 1; // requires a secret
    doors.Flood(100, 3000, kMillisecond, bytes);
    doors.Run(8 * kSecond);
    const std::string log = doors.Take(0);
    const auto told = static_cast<std::uint64_t>(1 + std::count(log.begin(), log.end(), ','));
    EXPECT_GE(told, 32U + 7U);
    EXPECT_LE(told, 32U + 8U);
    EXPECT_GE(told + doors.Counts(0).untold, 7900U) << "addresses are too many to be remembered";
    EXPECT_LE(told + doors.Counts(0).untold, 8001U);
  }
}

/// The tags were calculated by another program, from the description of the protocol.
TEST(TCPE_Doors, AQueryIsAnsweredOnceAndOnlyToWhoAsked) {
  const struct {
    bool isCurrent;
    TCPE_DiscoveryCodec::Kind kind;
    const char* header;
    const char* tag;
  } cases[] = {{true, TCPE_DiscoveryCodec::Kind::satellites, "0125 04 01 00 0c 01 00 00000002 01020304 7e4e 0000",
                "8055d4b337d074c91323e7ca4fb3bf6e"},
               {true, TCPE_DiscoveryCodec::Kind::masters, "0125 04 01 00 0c 01 00 00000003 01020304 7e4d 0000",
                "de138f65c43e9b99a16d95a3baff6bde"},
               {false, TCPE_DiscoveryCodec::Kind::satellites, "0125 03 01 00 0c 01 00 fffffffe 01020304 7f51 0000",
                "1683384cbfd2e2773b91e5817d0bcf0c"},
               {false, TCPE_DiscoveryCodec::Kind::masters, "0125 03 01 00 0c 01 00 fffffffd 01020304 7f52 0000",
                "1a6aa25dd8f962cd9d219083d50ea083"}};
  constexpr std::uint32_t kAsker = 0x0a000007;
  for (const auto& test : cases) {
    SCOPED_TRACE(test.header);
    TCPE_DiscoveryResponder::Config config{
        .limits = {.maxKnownQueries = 3},
        .datagrams = {.majorVersion = static_cast<std::uint8_t>(test.isCurrent ? 4 : 3),
                      .minorVersion = 1,
                      .types = test.isCurrent ? kTCPE_CurrentTypes : kTCPE_LegacyTypes,
                      .keys = {SimulatedNetwork::Key('\x01')}},
        .describe =
            [&test] {
              return TCPE_DiscoveryResponder::Self{.reply = {},
                                                   .isSatellite = test.kind == TCPE_DiscoveryCodec::Kind::satellites};
            },
        .random = [] { return 0; }};
    TCPE_DiscoveryResponder responder(config);
    const auto isAnswered = [&](std::span<const std::byte> datagram, std::uint32_t from) {
      responder.Received(datagram, {from, 1000}, false, kSecond);
      return responder.NextAnswer(1, kSecond).has_value();
    };
    TCPE_DiscoveryCodec::Query query{.kind = test.kind, .serial = 0x01020304, .senderSystemType = 1, .asker = kAsker};
    query.nonce.fill(std::byte{0xee});
    const TCPE_DiscoveryCodec codec(config.datagrams);
    const std::vector<std::byte> recorded = codec.WriteQuery(query);
    const std::string expected = FromHex(test.header) + FromHex("ee*16 00*277") + FromHex(test.tag);
    ASSERT_EQ(std::string(reinterpret_cast<const char*>(recorded.data()), recorded.size()), expected);
    EXPECT_FALSE(isAnswered(recorded, kAsker + 1));
    EXPECT_TRUE(isAnswered(recorded, kAsker));
    for (int others = 0; others <= 3; ++others) {
      EXPECT_EQ(isAnswered(recorded, kAsker), others == 3) << "the latest three are known";
      query.nonce[0] = static_cast<std::byte>(others);
      EXPECT_TRUE(isAnswered(codec.WriteQuery(query), kAsker));
    }
    EXPECT_EQ(responder.Counters().notAuthentic, 4U);
  }
}

} // namespace
