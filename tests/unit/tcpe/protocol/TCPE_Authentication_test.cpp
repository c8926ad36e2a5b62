#include "tests/support/Hex.h"
#include "tests/support/SimulatedNetwork.h"
#include "tests/support/Times.h"

#include <gtest/gtest.h>

namespace {

/// Systems 0, 1 and 2 have the addresses 10, 20 and 30 and, unless told otherwise, the same secret. Of two secrets a
/// system proves the first.
struct SystemsWithSecrets : SimulatedNetwork {
  explicit SystemsWithSecrets(const std::vector<std::string>& secrets = {"x", "x", "x"}) {
    for (std::uint32_t i = 0; i < secrets.size(); ++i) {
      TCPE_Endpoint::Config config = Config(10 * (i + 1));
      config.keys.proved = !secrets[i].empty() ? Key(secrets[i][0]) : nullptr;
      config.keys.accepted = secrets[i].size() > 1 ? Key(secrets[i][1]) : nullptr;
      config.limits.reopenPause = config.limits.handshake; // what is seen is one connection
      config.makeNonce = [this] { return TCPE_Hello::Nonce{static_cast<std::byte>(++mNonces)}; };
      Add(config);
    }
  }
  std::string Take(int system) { return std::exchange(At(system).log, {}); }
  std::string LogsOfConnecting(int from, int to) {
    Connect(from, to);
    Run(kSecond / 10);
    return Take(from) + " | " + Take(to);
  }
  bool IsMarked(int system, std::uint32_t address) {
    return At(system).endpoint->HasAuthenticationFailed(address, Now());
  }

private:
  int mNonces = 0;
};

std::string Command(TCPE_eCmd type, std::uint8_t flags = 0, const std::string& payload = {}) {
  return SystemsWithSecrets::Frame({.flags = flags, .type = type}, payload);
}
constexpr char kHello[] = "5452454c 01 04 01 00 00*7 99 a0a1a2a3a4a5a6a7a8a9aaabacadaeaf";

TEST(TCPE_Authentication, LinksThoseWhoKnowTheSecret) {
  constexpr const char* kLinked = "opened 20, ended 20 0 | opened 10 by peer";
  constexpr const char* kUnproved = "ended 20 17 | unproved 10";
  const struct {
    std::vector<std::string> secrets;
    const char* logs;
    bool marked[2] = {false, false}; ///< at the initiator, at the acceptor
  } cases[] = {{{"x", "x"}, kLinked},
               {{"x", "y"}, kUnproved, {false, true}},
               {{"x", ""}, kUnproved, {true, false}},
               {{"", "x"}, kUnproved, {false, true}},
               // While the secret is being changed.
               {{"x", "xy"}, kLinked},
               {{"xy", "x"}, kLinked},
               {{"xy", "yx"}, kLinked},
               {{"yx", "xy"}, kLinked},
               {{"yx", "y"}, kLinked},
               {{"y", "yx"}, kLinked},
               {{"yx", "x"}, kUnproved, {false, true}},
               {{"z", "xy"}, kUnproved, {false, true}},
               {{"xy", ""}, kUnproved, {true, false}}};
  for (const std::uint32_t largestPiece : {0U, 1U, 17U}) {
    for (const auto& test : cases) {
      SCOPED_TRACE(testing::PrintToString(test.secrets));
      SystemsWithSecrets systems(test.secrets);
      systems.Chop(largestPiece, 0);
      EXPECT_EQ(systems.LogsOfConnecting(0, 1), test.logs);
      EXPECT_EQ(systems.IsMarked(0, 20), test.marked[0]);
      EXPECT_EQ(systems.IsMarked(1, 10), test.marked[1]);
      if (systems.At(0).open.empty()) {
        continue;
      }
      systems.Send(0, 20, Command(7, 0, "ab") + Command(7)); // both in one write
      systems.Send(1, 10, Command(8, 0, std::string(16384, 'x')));
      systems.Run(60 * kSecond); // through many heartbeats
      EXPECT_EQ(systems.Take(0), "frame 20 8 (16384)");
      EXPECT_EQ(systems.Take(1), "frame 10 7 (2), frame 10 7 (0)");
    }
  }
}

/// The bytes were calculated by another program, from the description of the protocol.
TEST(TCPE_Authentication, TravelsAsDescribed) {
  SimulatedNetwork network;
  TCPE_Endpoint::Config config = SystemsWithSecrets::Config(10);
  config.keys.proved = SystemsWithSecrets::Key('x');
  network.Add(config);
  auto& stranger = network.ConnectStranger(20, 0);
  stranger.sides[0].hasSecret = true;
  network.Send(stranger, 1, FromHex(kHello));
  network.Send(stranger, 1,
               FromHex("0020 04 01 00 08 02 00 00000004 00000000 6702 0000 "
                       "36d210f88285e9389bd2dc938710c6b972bb14946ce5d7338fb64c650d6a6428"));
  network.Send(stranger, 1,
               FromHex("0003 04 01 00 0c 02 00 00000005 00000003 3585 0000 616263 93dbc57ffa2f6531392be208fdc8fb6a"));
  network.Send(stranger, 1,
               FromHex("0000 04 01 00 04 02 00 00000007 00000004 f9ef 0000 c969f01ce89844db735b27285521f280"));
  network.Run(kSecond + kMillisecond);
  EXPECT_EQ(network.At(0).log, "opened 20 by peer, frame 20 7 (0)");
  EXPECT_EQ(stranger.sides[0].received,
            FromHex("5452454c 01 04 01 00 0102030405060701 00*16 "
                    "0020 04 01 00 01 01 02 00000004 00000000 c12b 0000 "
                    "061046a6dd73e94e702612578a2b873b21ae863c932a72a4d474c967a2e5a3d2 "
                    "0000 04 01 00 05 01 02 00000005 00000003 faef 0000 0c8d2b412f2c878ff02c943d80d247e7 "
                    "0004 04 01 00 04 01 02 00000000 00000000 faf4 0000 00000000 5a7224622c8443f89f4a11977a298dbb "
                    "0000 04 01 00 04 01 02 00000000 00000000 faf8 0000 52b03fd944835db60f9f6de788c5d045"));
}

/// The network sees to it that nothing is accepted that was not sent.
TEST(TCPE_Authentication, AFlippedBitEndsTheConnection) {
  for (const int side : {0, 1}) {
    const auto sentAndOpen = [side](std::size_t bit) {
      SystemsWithSecrets systems({"x", "x"});
      std::size_t sent = 0;
      systems.tamper = [&](int toSide, std::string& bytes) {
        if (toSide == side && bit / 8 >= sent && bit / 8 < sent + bytes.size()) {
          char& byte = bytes[bit / 8 - sent];
          byte = static_cast<char>(byte ^ 1 << bit % 8);
        }
        sent += toSide == side ? bytes.size() : 0;
      };
      systems.Connect(0, 1);
      systems.Run(kSecond / 10);
      for (const int system : {0, 1}) {
        for (int i = 0; i < 2 && !systems.At(system).open.empty(); ++i) {
          systems.Send(system, system == 0 ? 20 : 10, Command(7, 0, "abc"));
        }
      }
      const std::size_t ofThese = sent;
      systems.Run(9 * kSecond);
      return std::pair(ofThese, systems.At(0).open.size() + systems.At(1).open.size());
    };
    const auto [sent, open] = sentAndOpen(std::string::npos);
    ASSERT_EQ(open, 2U);
    for (std::size_t bit = 0; bit < 8 * sent; ++bit) {
      ASSERT_EQ(sentAndOpen(bit).second, 0U) << "side " << side << ", bit " << bit;
    }
  }
}

TEST(TCPE_Authentication, RemembersTheLatestFailures) {
  const TCPE_Limits limits{.maxFailedAddresses = 3};
  TCPE_AuthenticationFailures failures(limits);
  for (const std::uint32_t address : {1U, 2U, 3U, 1U, 4U}) {
    failures.Add(address, kSecond + address);
  }
  for (const std::uint32_t address : {2U, 3U, 4U}) {
    EXPECT_TRUE(failures.IsMarked(address, 2 * kSecond));
  }
  EXPECT_FALSE(failures.IsMarked(1, 2 * kSecond)) << "the oldest has to go";
  EXPECT_TRUE(failures.IsMarked(4, 11 * kSecond + 3));
  EXPECT_FALSE(failures.IsMarked(4, 11 * kSecond + 4));
}

} // namespace
