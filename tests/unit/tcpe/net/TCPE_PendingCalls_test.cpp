#include "tcpe/net/TCPE_PendingCalls.h"

#include <gtest/gtest.h>

#include <array>
#include <latch>
#include <thread>

namespace {

constexpr std::array kPayload{std::byte{1}, std::byte{2}};

TEST(TCPE_PendingCalls, ACallEndsOnceWhoeverIsFirst) {
  const TCPE_Limits limits;
  for (std::uint32_t round = 0; round < 500; ++round) {
    TCPE_PendingCalls calls(limits);
    TCPE_Call call; // lives no longer than its wait
    ASSERT_EQ(calls.Add(round, call), eTCPE_CommErr_None);
    std::latch ready(3);
    bool isTaken = false;
    std::thread replies([&] {
      ready.arrive_and_wait();
      isTaken = calls.Complete({.serial = round}, kPayload);
    });
    std::thread fails([&] {
      ready.arrive_and_wait();
      if (round % 2 == 0) {
        calls.FailAll(eTCPE_CommErr_ConnectionLost);
      } else {
        calls.Cancel(round, eTCPE_CommErr_ConnectionLost);
      }
    });
    ready.arrive_and_wait();
    calls.Wait(round, call);
    replies.join();
    fails.join();
    EXPECT_EQ(call.error, isTaken ? eTCPE_CommErr_None : eTCPE_CommErr_ConnectionLost);
    EXPECT_EQ(call.payload.size(), isTaken ? kPayload.size() : 0);
    EXPECT_FALSE(calls.Complete({.serial = round}, kPayload));
  }
}

TEST(TCPE_PendingCalls, ALateReplyTouchesNothing) {
  TCPE_Limits limits;
  limits.reply = 1000;
  limits.maxPendingCalls = 2;
  TCPE_PendingCalls calls(limits);
  TCPE_Call call;
  TCPE_Call other;
  TCPE_Call third;
  EXPECT_EQ(calls.Add(1, call), eTCPE_CommErr_None);
  EXPECT_EQ(calls.Add(2, other), eTCPE_CommErr_None);
  EXPECT_EQ(calls.Add(3, third), eTCPE_CommErr_QueueFull);
  calls.Wait(1, call);
  EXPECT_EQ(call.error, eTCPE_CommErr_TimedOut);
  EXPECT_FALSE(calls.Complete({.serial = 1}, kPayload));
  EXPECT_TRUE(call.payload.empty());
  EXPECT_TRUE(calls.Complete({.serial = 2}, kPayload));
  calls.Wait(2, other);
  EXPECT_EQ(other.error, eTCPE_CommErr_None);
  calls.FailAll(eTCPE_CommErr_ConnectionLost);
  EXPECT_EQ(calls.Add(4, third), eTCPE_CommErr_ConnectionLost);
}

} // namespace
