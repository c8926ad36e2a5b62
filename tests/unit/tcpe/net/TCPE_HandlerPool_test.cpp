#include "tcpe/net/TCPE_HandlerPool.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <future>
#include <latch>
#include <memory>

namespace {

constexpr std::int64_t kLong = 10'000'000;

std::shared_ptr<TCPE_HandlerPool> Started(std::size_t maxThreads, std::size_t maxJobs = 1000) {
  auto pool = std::make_shared<TCPE_HandlerPool>(TCPE_HandlerPool::Bounds{
      .threads = maxThreads, .jobsPerPeer = maxJobs, .bytesPerPeer = 1000, .waitingJobsPerPeer = 2, .peers = 5});
  pool->Start();
  return pool;
}

TEST(TCPE_HandlerPool, JobsOfOnePeerRunInOrderAndOneAtATime) {
  for (const std::size_t threads : {1U, 3U, 16U}) {
    const auto pool = Started(threads);
    constexpr int kJobs = 300;
    struct Peer {
      int last = -1; // plain: jobs of one peer need no lock
      bool isInOrder = true;
    };
    std::array<Peer, 5> peers;
    std::latch left(kJobs * peers.size());
    for (int i = 0; i < kJobs; ++i) {
      for (std::uint32_t peer = 0; peer < peers.size(); ++peer) {
        ASSERT_TRUE(pool->Submit(peer, [&left, &state = peers[peer], i] {
          state.isInOrder = state.isInOrder && state.last == i - 1;
          state.last = i;
          left.count_down();
        }));
      }
    }
    left.wait();
    pool->Stop(kLong);
    for (const Peer& peer : peers) {
      EXPECT_TRUE(peer.isInOrder);
    }
  }
}

TEST(TCPE_HandlerPool, AJobThatWaitsForAnotherSystemLetsTheNextOneStart) {
  const auto pool = Started(8);
  std::promise<void> goOn;
  std::promise<void> nextStarted;
  std::promise<bool> ended;
  std::atomic<bool> mayStart = false;
  EXPECT_FALSE(pool->IsOnHandlerThread());
  pool->Submit(1, [&] {
    goOn.get_future().wait(); // busy: holds up its peer, and no other
    mayStart = true;
    const TCPE_HandlerPool::WaitScope waits;
    const TCPE_HandlerPool::WaitScope waitsAgain;
    nextStarted.get_future().wait();
    ended.set_value(pool->IsOnHandlerThread());
  });
  std::atomic<bool> startedEarly = false;
  pool->Submit(1, [&] {
    startedEarly = !mayStart;
    nextStarted.set_value();
  });
  std::promise<void> other;
  pool->Submit(2, [&other] { other.set_value(); });
  other.get_future().wait();
  goOn.set_value();
  EXPECT_TRUE(ended.get_future().get());
  pool->Stop(kLong);
  EXPECT_FALSE(startedEarly);
}

TEST(TCPE_HandlerPool, IsBoundedAndSurvivesWhatAJobThrows) {
  const auto pool = Started(1, 2);
  std::promise<void> started;
  std::promise<void> goOn;
  std::promise<void> last;
  pool->Submit(1, [&] {
    started.set_value();
    goOn.get_future().wait();
    throw 1; // NOLINT(hicpp-exception-baseclass)
  });
  started.get_future().wait();
  EXPECT_TRUE(pool->Submit(1, [] {}));
  EXPECT_TRUE(pool->Submit(1, [] {}));
  EXPECT_FALSE(pool->Submit(1, [] {}));
  EXPECT_TRUE(pool->Submit(2, [] {}));
  EXPECT_FALSE(pool->IsFull(6));
  for (const std::uint32_t peer : {3U, 4U, 5U}) {
    EXPECT_TRUE(pool->Submit(peer, [] {}));
  }
  EXPECT_TRUE(pool->IsFull(6)) << "too many others have something waiting";
  EXPECT_FALSE(pool->IsFull(5));
  EXPECT_TRUE(pool->Submit(6, [] {})) << "one that is linked already is not hindered";
  EXPECT_TRUE(pool->Submit(
      1, [&last] { last.set_value(); }, 0, true));
  goOn.set_value();
  last.get_future().wait();
  pool->Stop(kLong);
}

TEST(TCPE_HandlerPool, APeerHoldsNoMoreMemoryAndWaitingJobsThanItMay) {
  auto pool = Started(8);
  std::promise<void> goOn;
  std::latch firstTwo(2);
  std::latch all(4);
  std::atomic<int> started = 0;
  const auto waitForAnotherSystem = [&, mayGoOn = goOn.get_future().share()] {
    const TCPE_HandlerPool::WaitScope waits;
    if (++started <= 2) {
      firstTwo.count_down();
    }
    mayGoOn.wait();
    all.count_down();
  };
  pool->Submit(1, waitForAnotherSystem);
  pool->Submit(1, waitForAnotherSystem);
  firstTwo.wait();
  EXPECT_TRUE(pool->Submit(1, waitForAnotherSystem, 999));
  EXPECT_TRUE(pool->Submit(1, waitForAnotherSystem, 1));
  EXPECT_TRUE(pool->IsFull(1));
  EXPECT_FALSE(pool->Submit(1, waitForAnotherSystem));
  std::promise<void> other; // another peer is not delayed, and shows that the third had its chance
  pool->Submit(2, [&other] { other.set_value(); });
  other.get_future().wait();
  EXPECT_EQ(started, 2);
  goOn.set_value();
  all.wait();
  pool->Stop(kLong);
}

TEST(TCPE_HandlerPool, StopDropsWhatWaitsAndLeavesWhatIsBusy) {
  for (const bool isReleased : {false, true}) {
    auto pool = Started(4);
    std::promise<void> started;
    std::promise<void> goOn;
    std::promise<void> jobGone;
    const auto guard = [&jobGone](const int* value) {
      delete value;
      jobGone.set_value();
    };
    pool->Submit(1, [&, alive = std::shared_ptr<int>(new int, guard)] {
      const auto waits = isReleased ? std::make_unique<TCPE_HandlerPool::WaitScope>() : nullptr;
      started.set_value();
      goOn.get_future().wait();
    });
    started.get_future().wait();
    std::atomic<bool> ran = false;
    pool->Submit(2, [] {});
    if (!isReleased) {
      pool->Submit(1, [&ran] { ran = true; });
    }
    pool->Stop(1000);
    EXPECT_FALSE(pool->Submit(
        3, [&ran] { ran = true; }, 0, true));
    pool.reset(); // the thread that is still busy keeps what it needs
    goOn.set_value();
    jobGone.get_future().wait();
    EXPECT_FALSE(ran);
  }
}

} // namespace
