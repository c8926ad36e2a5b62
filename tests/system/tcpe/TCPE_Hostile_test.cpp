#include "tcpe/protocol/TCPE_AuthenticationKey.h"
#include "tests/support/RawPeer.h"
#include "tests/support/Sanitized.h"
#include "tests/support/SharedSecretFile.h"

#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <optional>

#include <sys/resource.h>

namespace {

constexpr std::uint32_t kStranger = 0x7f000040;

// What an attack may cost; a sanitizer keeps freed memory for a while.
constexpr std::int64_t kMemoryLimit = (kIsSanitized ? 300 : 32) * 1024; // KiB

std::int64_t OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
}

std::int64_t ResidentKilobytes() {
  std::int64_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * sysconf(_SC_PAGESIZE) / 1024;
}

/// A victim, and a good peer whose round trips must not suffer.
class TCPE_Hostile : public testing::Test {
protected:
  void SetUp() override {
    ASSERT_EQ(mVictim.Start() + mGood.Start(), 0);
    ASSERT_TRUE(mGood.Connect(mVictim.Address()));
    mRoundTrips.emplace(mGood, mVictim.Address());
  }
  void TearDown() override {
    mRoundTrips->ExpectUndisturbed();
    EXPECT_TRUE(mVictim.IsConnected(mGood.Address()));
    EXPECT_EQ(mGood.Count("error"), 0);
    RawPeer::Admitted(kStranger - 1, mVictim.Address());
  }
  std::uint64_t Refused() const { return mVictim.GetCounters().refusedConnections; }

  TestSystem mVictim{0};
  TestSystem mGood{1};
  std::optional<RoundTrips> mRoundTrips;
};

TEST_F(TCPE_Hostile, WhatIsNoCommandOfThisBuildIsAnsweredOrIgnored) {
  const auto asked = [](TCPE_eCmd type, std::size_t payload = 0) {
    return RawFrame({.flags = kTCPE_Flag_ReplyWanted, .type = type, .serial = 5}, Bytes(payload));
  };
  const struct {
    Bytes frame;
    int answer; // error of the reply
  } cases[] = {
      {asked(eTrel_Cmd_GetState), 0},
      {asked(81), eTCPE_CommErr_UnknownCommand}, // beyond the range
      {asked(-4), eTCPE_CommErr_UnknownCommand}, // of the other numbering
      {asked(std::numeric_limits<TCPE_eCmd>::min()), eTCPE_CommErr_UnknownCommand},
      {asked(eTrel_Cmd_TestRunningTime, 7), eTCPE_CommErr_MalformedPayload}, // too short
      {asked(eTrel_Cmd_TestRunningTime, TCPE_Limits{}.maxPayload), 0},       // bytes left over
  };
  // What nobody answers: a heartbeat, a reply that nobody waits for, a missing class, a short payload.
  const Bytes ignored = RawFrame({.type = 0}, Bytes(40)) +
                        RawFrame({.flags = kTCPE_Flag_Reply, .type = eTrel_Cmd_GetState}) + RawFrame({.type = 1}) +
                        RawFrame({.type = eTrel_Cmd_TestRunningTime}, Bytes(7));
  std::uint32_t address = kStranger;
  for (const auto& test : cases) {
    SCOPED_TRACE(address);
    RawPeer peer = RawPeer::Admitted(++address, mVictim.Address());
    peer.Send(ignored + test.frame);
    const TCPE_FrameHeader reply = peer.Read();
    EXPECT_EQ(std::pair(reply.serial, int{reply.error}), std::pair(5U, test.answer));
    EXPECT_EQ(reply.Has(kTCPE_Flag_ErrorReply), test.answer != 0);
    EXPECT_TRUE(mVictim.IsConnected(address));
  }
  const TCPE_Counters counters = mVictim.GetCounters();
  EXPECT_EQ(counters.lateReplies, std::size(cases));
  EXPECT_EQ(counters.unknownCommands, std::size(cases) + 3);
  EXPECT_EQ(counters.malformedPayloads, std::size(cases) + 1);
}

TEST_F(TCPE_Hostile, NeitherUnfinishedFramesNorSilentConnectionsAreKept) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
  setrlimit(RLIMIT_NOFILE, &limit);
  constexpr std::uint32_t kSilent = 1000;
  const RawPeer dripping = RawPeer::Admitted(kStranger, mVictim.Address());
  const auto drips = [&dripping] {
    dripping.Send(Bytes(1));
    return !dripping.IsClosed(500);
  };
  Bytes unfinished = RawTime(1);
  unfinished[0] = std::byte{0x10};
  dripping.Send(unfinished);
  const std::int64_t begin = Sys_Clock::RawMicroseconds();
  {
    const std::int64_t before = OpenDescriptors();
    const std::int64_t memory = ResidentKilobytes();
    std::vector<RawPeer> silent;
    for (std::uint32_t i = 0; i < kSilent; ++i) {
      silent.emplace_back(0x7f000100 + i / 4, mVictim.Address()); // from one address only a few are let in
    }
    EXPECT_TRUE(Eventually([&] { return Refused() >= kSilent - TCPE_Limits{}.maxHalfOpen; }));
    // Who gives way is closed a moment after the newcomer has its place.
    EXPECT_TRUE(Eventually(
        [&] { return OpenDescriptors() - before - kSilent <= static_cast<std::int64_t>(TCPE_Limits{}.maxHalfOpen); }));
    ExpectWithin("memory for them, KiB", ResidentKilobytes() - memory, kMemoryLimit);
    while (Refused() < kSilent && drips()) {
    }
    ExpectWithin("all of them gone after us", Sys_Clock::RawMicroseconds() - begin, 10'000'000);
    EXPECT_EQ(Refused(), kSilent);
  }
  while (drips() && Sys_Clock::RawMicroseconds() - begin < 20'000'000) {
  }
  ExpectWithin("unfinished frame given up after us", Sys_Clock::RawMicroseconds() - begin, 7'000'000);
  EXPECT_TRUE(Eventually([&] { return mVictim.From(kStranger).back() == ErrorText(eNetworkError_MalformedData); }));
  EXPECT_EQ(mVictim.Count(ErrorText(eNetworkError_Flood)), 1) << "the silent ones";
  EXPECT_EQ(mVictim.Count("error"), 2);
}

/// The kinds of floods that the tests in virtual time show, at the speed of one thread.
TEST(TCPE_Flood, KeepsNobodyOut) {
  Bytes hello(TCPE_Hello::kSize);
  const Bytes wrongProof =
      RawFrame({.flags = kTCPE_Flag_ReplyWanted, .type = kTCPE_CurrentTypes.authenticationChallenge},
               Bytes(TCPE_AuthenticationKey::kSize));
  for (const bool haveSecret : {false, true}) {
    const SharedSecretFile file{};
    if (haveSecret) {
      file.Set('1');
    }
    TCPE_Hello{.majorVersion = 4, .authenticationRequired = haveSecret, .instance = 1}.Write(hello.data());
    for (const Bytes& bytes : {Bytes(), hello, hello + wrongProof}) {
      TestSystem victim(0), rightful(1);
      Start(victim, rightful);
      const std::jthread flood([&](const std::stop_token& ends) {
        std::deque<RawPeer> held;
        for (std::uint32_t number = 0; !ends.stop_requested(); ++number) {
          held.emplace_back(kStranger + number % 4, victim.Address()).Send(bytes);
          if (held.size() > 200) {
            held.front().Reset();
            held.pop_front();
          }
        }
      });
      EXPECT_TRUE(Eventually([&victim] { return victim.GetCounters().refusedConnections > 300; }));
      const std::int64_t begin = Sys_Clock::RawMicroseconds();
      EXPECT_TRUE(Eventually([&] { return rightful.Connect(victim.Address()); }));
      ExpectWithin("until it was connected, us", Sys_Clock::RawMicroseconds() - begin, 2'000'000);
      EXPECT_EQ(rightful.Query(victim.Address()), eTCPE_CommErr_None);
    }
  }
}

TEST(TCPE_Flood, WhoLosesItsPlaceAsksForAnother) {
  TestSystem system(0);
  ASSERT_EQ(system.Start(), 0);
  const int listening = RawPeer::Listen(kStranger);
  Bytes hello(TCPE_Hello::kSize);
  TCPE_Hello{.majorVersion = 4, .instance = 1}.Write(hello.data());
  const std::jthread attempt([&system] { system.Connect(kStranger); });
  const std::int64_t begin = Sys_Clock::RawMicroseconds();
  for (int count = 0; count < 5; ++count) {
    RawPeer peer = RawPeer::Accepted(listening);
    peer.Send(hello);
    peer.Read(); // its connect command
  }
  ExpectWithin("until it came the fifth time, us", Sys_Clock::RawMicroseconds() - begin, 2'000'000);
  close(listening);
}

} // namespace
