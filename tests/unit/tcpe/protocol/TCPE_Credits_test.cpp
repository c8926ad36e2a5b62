#include "tcpe/protocol/TCPE_Credits.h"

#include <gtest/gtest.h>

namespace {

TCPE_Limits Small() {
  TCPE_Limits limits;
  limits.maxCommandsOut = 8;
  limits.finishedStep = 2;
  return limits;
}

TEST(TCPE_Credits, LimitWhoHasBeenToldAndWaitForProgress) {
  const TCPE_Limits limits = Small();
  TCPE_Credits credits(limits);
  const auto send = [&](int count) {
    for (; count > 0 && credits.MaySend(); --count) {
      credits.NoteSent();
    }
    return count == 0;
  };
  EXPECT_FALSE(send(100)) << "the receiver may yet tell";
  credits.ToldNothing();
  EXPECT_TRUE(send(92));
  EXPECT_EQ(credits.Out(), 0U);
  credits.Told(101, 1); // cannot be
  EXPECT_TRUE(credits.MaySend());
  credits.Told(95, 2);
  credits.ToldNothing();
  EXPECT_EQ(credits.Out(), 5U);
  EXPECT_FALSE(send(4));
  EXPECT_EQ(credits.Out(), 8U);
  credits.Told(94, 3);
  credits.Told(104, 3);
  EXPECT_EQ(credits.Out(), 8U);

  EXPECT_EQ(credits.Deadline(), TCPE_Credits::kNever);
  credits.SetWaiting(true, 10);
  credits.SetWaiting(true, 20); // somebody else too
  EXPECT_EQ(credits.Deadline(), 10 + limits.tooSlow);
  credits.Told(95, 30); // no progress
  credits.NoteWritten(30);
  EXPECT_EQ(credits.Deadline(), 10 + limits.tooSlow);
  credits.Told(96, 40);
  EXPECT_EQ(credits.Deadline(), 40 + limits.tooSlow);
  credits.NoteWritten(50); // who has credit lacks room, and gets some
  EXPECT_EQ(credits.Deadline(), 50 + limits.tooSlow);
  credits.SetWaiting(false, 60);
  EXPECT_EQ(credits.Deadline(), TCPE_Credits::kNever);
}

TEST(TCPE_Credits, CountTheFinishedModuloTwoToThe32nd) {
  const TCPE_Limits limits;
  TCPE_Credits credits(limits);
  credits.Told(0, 1);
  constexpr std::uint64_t kStep = 1000;
  for (std::uint64_t sent = 0; sent <= (std::uint64_t{1} << 32U) + 5 * kStep; sent += kStep) {
    ASSERT_EQ(credits.Out(), 0U) << sent;
    credits.NoteSent(kStep);
    credits.Told(static_cast<std::uint32_t>(sent + kStep), 2);
  }
}

TEST(TCPE_Credits, AreToldAtOnceThenByTheStepSoonerToWhoMustWaitAndLaterOtherwise) {
  const TCPE_Limits limits = Small();
  TCPE_FinishedCount count(limits);
  EXPECT_LE(count.Deadline(), 1); // that there is somebody who tells
  EXPECT_EQ(count.Tell(1), 0U);
  EXPECT_EQ(count.Deadline(), TCPE_Credits::kNever);
  for (int i = 0; i < 7; ++i) {
    count.NoteArrived();
  }
  EXPECT_FALSE(count.NoteFinished());
  EXPECT_EQ(count.Deadline(), 1 + limits.heartbeat);
  EXPECT_TRUE(count.NoteFinished());
  EXPECT_FALSE(count.NoteFinished()) << "said already";
  EXPECT_EQ(count.Deadline(), 1);
  EXPECT_EQ(count.Tell(5), 3U);
  for (int i = 0; i < 4; ++i) {
    count.NoteArrived(); // 8 of which it knows nothing
  }
  EXPECT_EQ(count.Deadline(), TCPE_Credits::kNever);
  EXPECT_TRUE(count.NoteFinished());
  EXPECT_EQ(count.Deadline(), 5 + limits.finishedPause);
  EXPECT_EQ(count.Tell(6), 4U);
}

} // namespace
