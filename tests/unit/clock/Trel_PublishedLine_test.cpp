#include "link/clock/Trel_PublishedLine.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

// More lines than slots, so that the writer comes round to slots that readers have just been in.
TEST(Trel_PublishedLine, ReadersSeeWholeLinesInOrder) {
  constexpr int kLines = 20'000;
  Trel_PublishedLine published;
  EXPECT_FALSE(published.Read());
  std::atomic<int> running{0};
  std::vector<std::thread> readers(3);
  for (std::thread& reader : readers) {
    reader = std::thread([&] {
      ++running;
      double last = 0;
      while (last < kLines) {
        if (const auto line = published.Read()) {
          EXPECT_EQ(line->mSlope, line->mOffset);
          EXPECT_EQ(line->mIsCorrelated, static_cast<int>(line->mSlope) % 2 == 1);
          EXPECT_GE(line->mSlope, last);
          last = line->mSlope;
        }
      }
    });
  }
  while (running < 3) {
    std::this_thread::yield();
  }
  for (int i = 1; i <= kLines; ++i) {
    published.Publish(Trel_PublishedLine::Line{static_cast<double>(i), static_cast<double>(i), i % 2 == 1});
  }
  for (std::thread& reader : readers) {
    reader.join();
  }
  published.Publish(std::nullopt);
  EXPECT_FALSE(published.Read());
}

} // namespace
