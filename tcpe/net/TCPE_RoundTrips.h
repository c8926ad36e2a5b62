#pragma once

#include <trel/TCPE_EngineSnapshot.h>

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

/// A histogram of durations in classes that grow with them. Thread-safe, without locks and of fixed size.
class TCPE_RoundTrips {
public:
  /// Anything above the last class, 2^25 us, is counted in it.
  void Add(std::int64_t microseconds) { mCounts[ClassOf(microseconds)].fetch_add(1, std::memory_order_relaxed); }

  TCPE_RoundTripTimes Times() const;

private:
  static constexpr std::size_t kExact = 16;   ///< classes of 1 us, from 0 on
  static constexpr std::size_t kStepBits = 3; ///< above, each octave has 2^3 classes
  static constexpr std::size_t kOctaves = 21;
  static constexpr std::size_t kClasses = kExact + (kOctaves << kStepBits);

  static constexpr std::size_t ClassOf(std::int64_t microseconds) {
    if (microseconds < static_cast<std::int64_t>(kExact)) {
      return microseconds > 0 ? static_cast<std::size_t>(microseconds) : 0;
    }
    const auto value = static_cast<std::uint64_t>(microseconds);
    const std::size_t shift = static_cast<std::size_t>(std::bit_width(value)) - 1 - kStepBits;
    const std::size_t index = (shift << kStepBits) + static_cast<std::size_t>(value >> shift);
    return index < kClasses ? index : kClasses - 1;
  }
  /// The middle of a class.
  static std::int64_t ValueOf(std::size_t index);

  std::array<std::atomic<std::uint64_t>, kClasses> mCounts{};
};
