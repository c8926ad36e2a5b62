#pragma once

#include <algorithm>
#include <cstdint>

/// How long to wait before the next attempt: longer each time, and never the same for two systems that fail together.
class Trel_RetryPause {
public:
  /// Microseconds.
  Trel_RetryPause(std::int64_t first, std::int64_t longest)
      : mLongest(std::max<std::int64_t>(longest, 0)), mFirst(std::clamp<std::int64_t>(first, 0, mLongest)),
        mNext(mFirst) {}

  void Reset() { mNext = mFirst; }
  std::int64_t Next(std::uint64_t random) {
    const std::int64_t pause = mNext;
    mNext = mNext > mLongest / 2 ? mLongest : mNext * 2;
    return Spread(pause, random);
  }
  std::int64_t Longest(std::uint64_t random) const { return Spread(mLongest, random); }

private:
  static std::int64_t Spread(std::int64_t pause, std::uint64_t random) {
    return pause - static_cast<std::int64_t>(random % (static_cast<std::uint64_t>(pause) / 4 + 1));
  }

  std::int64_t mLongest;
  std::int64_t mFirst;
  std::int64_t mNext;
};
