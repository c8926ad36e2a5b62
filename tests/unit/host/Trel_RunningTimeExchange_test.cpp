#include <trel/Sys_Clock.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_CorrelatedClockMgr.h>
#include <trel/host/Trel_RunningTimeExchange.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <numeric>
#include <set>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr std::uint32_t kDeadPeer = 0x7f000002;
constexpr std::uint32_t kOtherDeadPeer = 0x7f000003;
constexpr std::uint32_t kPeer = 0x7f000004;
constexpr std::int64_t kRunningTimeAhead = 123'456'789; // of host time
constexpr std::int64_t kTick = 10'000;

std::int64_t sNow = 0;

/// The ways of one command to its peer and of the reply, microseconds. `answered` false: no reply comes.
struct Ways {
  std::int64_t there = 50;
  std::int64_t back = 50;
  bool answered = true;
};

struct Voucher {
  std::int64_t time;
  std::int64_t roundTrip;
};

/// An exchange whose commands travel in virtual time. The clock manager of this process is the peer kPeer.
class SimulatedExchange : public Trel_RunningTimeExchange {
public:
  std::function<Ways(std::uint32_t address, bool isVoucher)> mWays = [](std::uint32_t, bool) { return Ways{}; };
  std::vector<Voucher> mVouchers;    // for kPeer
  std::vector<std::int64_t> mResets; // times at which kPeer was sent one
  std::uint64_t mInstance = 1;       // of all peers
  std::uint64_t mServed = 1;         // the one before
  std::int64_t mLongestTick = 0;
  int mBusyTicks = 0;

  void Run(std::int64_t duration, const std::set<std::uint32_t>& peers = {kPeer}) {
    for (const std::int64_t end = sNow + duration; sNow < end; sNow += kTick) {
      const std::int64_t begin = sNow;
      const std::int64_t due = NextDue();
      const bool isNew = std::any_of(peers.begin(), peers.end(), [this](auto peer) { return !GetStatus(peer); });
      Tick(peers, sNow + kRunningTimeAhead);
      const bool isAnother = std::exchange(mServed, mInstance) != mInstance;
      EXPECT_TRUE(isAnother || (sNow > begin) == (isNew || due <= begin));
      mBusyTicks += sNow > begin ? 1 : 0;
      mLongestTick = std::max(mLongestTick, sNow - begin);
    }
  }

protected:
  bool Send(Trel_Command* command) override {
    const auto* voucher = dynamic_cast<const Trel_Cmd_LastUpdateRunningTimeValid*>(command);
    const Ways ways = mWays(command->GetIPAddressTo(), voucher != nullptr);
    sNow += ways.there;
    if (command->GetIPAddressTo() == kPeer && dynamic_cast<const Trel_Cmd_ResetClock*>(command) != nullptr) {
      mResets.push_back(sNow);
    }
    if (command->GetIPAddressTo() == kPeer && ways.answered) {
      EXPECT_TRUE(Trel_CorrelatedClockMgr::HandleTimingCommand(command));
      if (voucher != nullptr) {
        mVouchers.push_back({sNow, voucher->GetRoundTripTime()});
      }
    }
    sNow += ways.back;
    return ways.answered;
  }
  std::uint64_t PeerInstance(std::uint32_t /*address*/) override { return mInstance; }
};

std::int64_t LongestGap(const std::vector<Voucher>& vouchers) {
  std::int64_t longest = 0;
  for (std::size_t i = 1; i < vouchers.size(); ++i) {
    longest = std::max(longest, vouchers[i].time - vouchers[i - 1].time);
  }
  return longest;
}

std::int64_t PeerError() {
  return std::abs(Trel_CorrelatedClockMgr::GetRunningTime(sNow) - (sNow + kRunningTimeAhead));
}

class Trel_RunningTimeExchangeTest : public testing::Test {
protected:
  void SetUp() override {
    sNow = 0;
    Sys_Clock::SetSource([] { return sNow; });
    Trel_CorrelatedClockMgr::Terminate();
  }
  void TearDown() override {
    Trel_CorrelatedClockMgr::Terminate();
    Sys_Clock::SetSource(nullptr);
  }

  SimulatedExchange mExchange;
};

TEST_F(Trel_RunningTimeExchangeTest, LocksThePeerAndSlowsDownWhenItsWindowIsFull) {
  mExchange.Run(400'000);
  EXPECT_TRUE(Trel_CorrelatedClockMgr::IsLocked());
  mExchange.Run(12'100'000);
  EXPECT_EQ(PeerError(), 0);
  EXPECT_LE(mExchange.mVouchers[3].time, 60'000 + kTick);
  EXPECT_NEAR(static_cast<double>(mExchange.mVouchers[24].time), 3'500'000, 500'000);
  EXPECT_NEAR(static_cast<double>(mExchange.mVouchers.size()), 25 + 36, 3);
  const auto status = mExchange.GetStatus(kPeer);
  ASSERT_TRUE(status);
  EXPECT_EQ(status->vouched, static_cast<std::int64_t>(mExchange.mVouchers.size()));
  EXPECT_EQ(status->roundTrips, 2 * status->vouched + 11);
  EXPECT_EQ(status->lastVouchedRoundTrip, 100);
  EXPECT_EQ(status->failures, 0);
}

TEST_F(Trel_RunningTimeExchangeTest, VouchesForGoodRoundTripsOnly) {
  using RoundTrips = std::vector<std::int64_t>;
  const auto after = [](int count, const RoundTrips& others) {
    RoundTrips roundTrips(static_cast<std::size_t>(count), 100);
    roundTrips.insert(roundTrips.end(), others.begin(), others.end());
    return roundTrips;
  };
  RoundTrips tooLong(13, 141);
  tooLong.insert(tooLong.end(), {100, 141, 140});
  RoundTrips disturbed(9 * 4); // nine times four that are far too long
  std::iota(disturbed.begin(), disturbed.end(), 10'000);
  const struct {
    const char* name;
    int ticks;
    RoundTrips roundTrips; // of the running times, in the order of sending
    RoundTrips vouchedFor;
  } cases[] = {
      {"a new peer is got to know", 1, after(13, {}), {100}},
      {"a new peer whose dozenth is bad", 1, after(12, {140, 121, 120}), {120}},
      {"a new peer far away", 1, {9'000, 9'000, 9'000, 9'000}, {9'000}},
      {"the first only wakes", 2, after(13, {90, 107, 106}), {100, 106}},
      {"at the limit and above", 2, after(13, {100, 121, 121, 120}), {100, 120}},
      {"at least a microsecond", 2, after(12, {20, 20, 25, 24}), {20, 24}},
      {"all too long, then twice the allowance", 3, after(13, tooLong), {100, 140}},
      {"a quarter of that for the fifth", 5, after(19, {100, 106, 105}), {100, 100, 100, 100, 105}},
      {"few when they take long", 2, after(13, {9'000, 9'000, 9'000, 9'000}), {100}},
      {"never starved", 10, after(13, disturbed), {100, disturbed.back()}},
  };
  for (const auto& test : cases) {
    SimulatedExchange exchange;
    std::size_t next = 0;
    exchange.mWays = [&](std::uint32_t, bool isVoucher) {
      const bool isRunningTime = !isVoucher && !exchange.mResets.empty();
      const std::int64_t roundTrip = isRunningTime ? test.roundTrips.at(next++) : 100;
      return Ways{.there = 10, .back = roundTrip - 10};
    };
    for (int tick = 0; tick < test.ticks; ++tick) {
      exchange.Tick({kPeer}, sNow + kRunningTimeAhead);
      sNow += 100'000;
    }
    RoundTrips vouchedFor;
    for (const Voucher& voucher : exchange.mVouchers) {
      vouchedFor.push_back(voucher.roundTrip);
    }
    EXPECT_EQ(vouchedFor, test.vouchedFor) << test.name;
    EXPECT_EQ(next, test.roundTrips.size()) << test.name;
  }
}

TEST_F(Trel_RunningTimeExchangeTest, DeadPeersHardlyDelayTheOthers) {
  constexpr std::int64_t kTimeOut = 2'000'000;
  mExchange.mWays = [](std::uint32_t address, bool) {
    return address == kPeer ? Ways{} : Ways{.there = 0, .back = kTimeOut, .answered = false};
  };
  mExchange.Run(60'000'000, {kPeer, kDeadPeer, kOtherDeadPeer});
  EXPECT_LE(LongestGap(mExchange.mVouchers), kTimeOut + 250'000 + 3 * kTick);
  EXPECT_LT(mExchange.mLongestTick, kTimeOut + kTick);
  EXPECT_EQ(mExchange.GetStatus(kDeadPeer)->failures, 3); // at 0, 10 and 28 seconds
  EXPECT_GE(mExchange.mVouchers.size(), 180U);
}

TEST_F(Trel_RunningTimeExchangeTest, ManyPeersAreServedLessOftenAndTogether) {
  std::set<std::uint32_t> peers;
  while (peers.size() < 64) {
    peers.insert(kPeer + static_cast<std::uint32_t>(peers.size()));
    mExchange.Run(30'000, peers);
  }
  mExchange.Run(8'000'000, peers);
  mExchange.mBusyTicks = 0;
  const std::size_t before = mExchange.mVouchers.size();
  EXPECT_GE(before, 25U);
  mExchange.Run(20'000'000, peers);
  EXPECT_NEAR(static_cast<double>(mExchange.mVouchers.size() - before), 10, 1); // at 64 times 30 ms
  EXPECT_LE(mExchange.mBusyTicks, 22);
  mExchange.mVouchers.clear();
  mExchange.mWays = [](std::uint32_t, bool) { return Ways{.there = 250, .back = 250}; }; // five times slower than known
  mExchange.Run(60'000'000, peers);
  EXPECT_LT(LongestGap(mExchange.mVouchers), 4'500'000); // after 5 s the clock of the peer would be lost
}

TEST_F(Trel_RunningTimeExchangeTest, ResetsWhoeverItHasNotServedBefore) {
  const struct {
    const char* name;
    std::int64_t missing;    // so long
    std::int64_t unanswered; // ... then
    bool leaves;
    std::uint64_t instance; // that comes back
    std::size_t resets;     // of that
  } cases[] = {
      {"short loss", 9'900'000, 0, false, 1, 0},      {"long loss", 10'100'000, 0, false, 1, 1},
      {"short silence", 0, 3'000'000, false, 1, 0},   {"long silence", 0, 12'000'000, false, 1, 1},
      {"both", 5'000'000, 6'000'000, false, 1, 1},    {"left in order", 20'000, 0, true, 1, 1},
      {"started anew", 20'000, 0, false, 2, 1},       {"started anew at once", 0, 0, false, 2, 1},
      {"instance not known", 20'000, 0, false, 0, 0},
  };
  for (const auto& test : cases) {
    SimulatedExchange exchange;
    bool answers = false;
    exchange.mWays = [&answers](std::uint32_t, bool) { return Ways{.answered = answers}; };
    Trel_CorrelatedClockMgr::AddMeasurement(-1'000'000'000, sNow); // of a system that is gone
    exchange.Run(1'000'000);
    EXPECT_EQ(exchange.mResets.size(), 2U) << test.name; // at 0 and 0.5 s
    answers = true;
    exchange.Run(2'000'000);
    EXPECT_EQ(exchange.mResets.size(), 3U) << test.name; // at 1.5 s, the first that is answered
    EXPECT_EQ(PeerError(), 0) << test.name;

    if (test.missing != 0) {
      exchange.Tick({}, sNow);
      sNow += test.missing;
    }
    if (test.leaves) {
      exchange.Forget(kPeer);
    }
    answers = test.unanswered == 0;
    exchange.Run(test.unanswered);
    answers = true;
    exchange.mResets.clear();
    exchange.mInstance = test.instance;
    const std::int64_t back = sNow;
    exchange.Run(20'000'000);
    EXPECT_EQ(exchange.mResets.size(), test.resets) << test.name;
    EXPECT_TRUE(test.resets == 0 || test.unanswered != 0 || exchange.mResets.front() - back <= kTick) << test.name;
    EXPECT_EQ(PeerError(), 0) << test.name;
  }
}

TEST_F(Trel_RunningTimeExchangeTest, TriesAgainAfterAPauseAndForgetsWhoIsGone) {
  mExchange.mWays = [](std::uint32_t, bool isVoucher) {
    return Ways{.there = 50, .back = 50, .answered = !isVoucher && sNow > 1'200'000};
  };
  mExchange.Run(3'000'000);
  EXPECT_EQ(mExchange.GetStatus(kPeer)->failures, 3); // at 0, 0.5 and, the voucher, 1.5 seconds
  EXPECT_EQ(mExchange.GetStatus(kPeer)->vouched, 0);
  mExchange.mWays = [](std::uint32_t, bool) { return Ways{}; };
  mExchange.Run(1'000'000);
  EXPECT_GE(mExchange.GetStatus(kPeer)->vouched, 3);
  mExchange.Tick({}, sNow + kRunningTimeAhead);
  EXPECT_FALSE(mExchange.GetStatus(kPeer));
  for (int i = 0; i < 2; ++i) {
    mExchange.Tick({kPeer}, sNow + kRunningTimeAhead);
    EXPECT_EQ(mExchange.GetStatus(kPeer)->roundTrips, 13);
    mExchange.Restart();
  }
}

} // namespace
