#include "tcpe/engine/TCPE_HandlerPool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <future>
#include <latch>
#include <memory>
#include <string>
#include <thread>

namespace {

constexpr std::int64_t kLong = 10'000'000;

using Kind = TCPE_HandlerPool::Kind;

TCPE_Limits WithRoomFor(std::size_t jobs) {
  TCPE_Limits limits;
  limits.maxQueuedCommands = limits.maxQueuedQueries = jobs;
  limits.maxQueuedBytes = limits.maxQueuedQueryBytes = 1000;
  limits.maxWaitingHandlers = 2;
  limits.maxQueues = 5;
  return limits;
}

std::shared_ptr<TCPE_HandlerPool> Started(std::size_t maxThreads, std::size_t maxJobs = 1000) {
  TCPE_Limits limits = WithRoomFor(maxJobs);
  limits.maxHandlerThreads = maxThreads;
  auto pool = std::make_shared<TCPE_HandlerPool>(limits);
  pool->Start();
  return pool;
}

/// Returns when the job has run.
void RunJob(TCPE_HandlerPool& pool, std::uint32_t peer, Kind kind = Kind::command) {
  std::promise<void> ran;
  pool.Submit(
      peer, [&ran] { ran.set_value(); }, kind);
  ran.get_future().wait();
}
bool SubmitNothing(TCPE_HandlerPool& pool, std::uint32_t peer, Kind kind = Kind::command) {
  return pool.Submit(
      peer, [] {}, kind);
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

TEST(TCPE_HandlerPool, WhatComesWhileAJobWaitsDoesNotOvertake) {
  const auto pool = Started(3);
  std::string order;
  std::promise<void> isFilled, hasEnded;
  pool->Submit(1, [&] { isFilled.get_future().wait(); });
  pool->Submit(1, [&] {
    order += 'a';
    pool->Submit(1, [&] { order += 'c', hasEnded.set_value(); });
    const TCPE_HandlerPool::WaitScope waits;
  });
  pool->Submit(1, [&] { order += 'b'; });
  isFilled.set_value();
  hasEnded.get_future().wait();
  pool->Stop(kLong);
  EXPECT_EQ(order, "abc");
}

TEST(TCPE_HandlerPool, AJobThatNeedNotWaitAnyMoreRunsBesideNoOther) {
  TCPE_Limits limits = WithRoomFor(1000);
  limits.turn = 200'000;
  const auto pool = std::make_shared<TCPE_HandlerPool>(limits);
  pool->Start();
  constexpr int kJobs = 300;
  std::atomic<int> running = 0;
  std::atomic<int> most = 0;
  std::latch left(kJobs);
  const auto work = [&] {
    most = std::max(most.load(), ++running);
    std::this_thread::yield();
    --running;
  };
  for (int i = 0; i < kJobs; ++i) {
    pool->Submit(1, [&] {
      work();
      { const TCPE_HandlerPool::WaitScope waits; }
      work();
      left.count_down();
    });
  }
  left.wait();
  EXPECT_EQ(most, 1);
  // ... unless the other one never ends.
  std::promise<void> otherStarted;
  std::promise<void> otherMayEnd;
  std::promise<void> goesOn;
  pool->Submit(1, [&] {
    {
      const TCPE_HandlerPool::WaitScope waits;
      otherStarted.get_future().wait();
    }
    goesOn.set_value();
  });
  pool->Submit(1, [&] {
    otherStarted.set_value();
    otherMayEnd.get_future().wait();
  });
  goesOn.get_future().wait();
  otherMayEnd.set_value();
  pool->Stop(kLong);
}

TEST(TCPE_HandlerPool, WhoWaitsForManyPeersLeavesThreadsForOthersAndIdleThreadsGo) {
  constexpr std::uint32_t kPeers = 9;
  TCPE_Limits limits;
  limits.maxHandlerThreads = 2 * kPeers + 12;
  limits.maxExtraHandlers = 8;
  limits.idleThread = 1000;
  const auto pool = std::make_shared<TCPE_HandlerPool>(limits);
  pool->Start();
  const std::size_t kJobs = limits.maxWaitingHandlers;
  std::promise<void> goOn;
  const std::shared_future<void> mayGoOn = goOn.get_future().share();
  std::atomic<std::size_t> waiting = 0;
  std::latch all(static_cast<std::ptrdiff_t>(kPeers * kJobs));
  for (std::uint32_t peer = 1; peer <= kPeers; ++peer) {
    for (std::size_t i = 0; i < kJobs; ++i) {
      pool->Submit(peer, [&] {
        const TCPE_HandlerPool::WaitScope waits;
        ++waiting;
        mayGoOn.wait();
        all.count_down();
      });
    }
  }
  while (waiting < 2 * kPeers + limits.maxExtraHandlers / 2) {
    std::this_thread::yield();
  }
  RunJob(*pool, 1, Kind::query);
  RunJob(*pool, kPeers + 1);
  EXPECT_EQ(waiting, 2 * kPeers + limits.maxExtraHandlers / 2);
  goOn.set_value();
  all.wait();
  while (pool->CountThreads() > 1) {
    std::this_thread::yield();
  }
  pool->Stop(kLong);
}

TEST(TCPE_HandlerPool, IsBounded) {
  const auto pool = Started(1, 2);
  std::promise<void> started;
  std::promise<void> goOn;
  pool->Submit(1, [&] {
    started.set_value();
    goOn.get_future().wait();
  });
  started.get_future().wait();
  EXPECT_TRUE(SubmitNothing(*pool, 1, Kind::query) && SubmitNothing(*pool, 1, Kind::query));
  EXPECT_FALSE(SubmitNothing(*pool, 1, Kind::query));
  EXPECT_TRUE(SubmitNothing(*pool, 1));
  EXPECT_FALSE(pool->GetQueueLoad(1).IsOverfull(WithRoomFor(1)));
  EXPECT_TRUE(SubmitNothing(*pool, 1)) << "its sender is not read any more";
  EXPECT_TRUE(pool->GetQueueLoad(1).IsOverfull(WithRoomFor(1)));
  EXPECT_TRUE(SubmitNothing(*pool, 2));
  EXPECT_FALSE(pool->IsFull(6));
  EXPECT_TRUE(SubmitNothing(*pool, 3) && SubmitNothing(*pool, 4) && SubmitNothing(*pool, 5));
  EXPECT_TRUE(pool->IsFull(6)) << "too many others have something waiting";
  EXPECT_FALSE(pool->IsFull(5));
  EXPECT_TRUE(SubmitNothing(*pool, 6)) << "one that is linked already is not hindered";
  EXPECT_TRUE(SubmitNothing(*pool, 1, Kind::notice)) << "never dropped";
  goOn.set_value();
  RunJob(*pool, 1, Kind::notice);
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
    const TCPE_HandlerPool::WaitScope waitsAgain;
    if (++started <= 2) {
      firstTwo.count_down();
    }
    mayGoOn.wait();
    all.count_down();
  };
  pool->Submit(1, waitForAnotherSystem);
  pool->Submit(1, waitForAnotherSystem);
  firstTwo.wait();
  EXPECT_TRUE(pool->Submit(1, waitForAnotherSystem, Kind::command, 999));
  EXPECT_TRUE(pool->Submit(1, waitForAnotherSystem, Kind::command, 2));
  EXPECT_TRUE(pool->GetQueueLoad(1).IsOverfull(WithRoomFor(1000)));
  RunJob(*pool, 1, Kind::query); // the two may wait for its reply
  RunJob(*pool, 2);              // another peer is not delayed, and shows that the third had its chance
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
    EXPECT_FALSE(SubmitNothing(*pool, 3, Kind::notice));
    pool.reset(); // the thread that is still busy keeps what it needs
    goOn.set_value();
    jobGone.get_future().wait();
    EXPECT_FALSE(ran);
  }
}

} // namespace
