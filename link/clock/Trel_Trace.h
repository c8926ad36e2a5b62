#pragma once

#include <atomic>
#include <cstdint>

/// The trace facility of the host installation. Until one has been bound the flag is clear and the entry points are
/// null.
class Trel_Trace {
public:
  using FacilityOnFunc = bool (*)(std::uint32_t category);
  using FormatFunc = void (*)(std::uint32_t category, const char* format, ...);

  /// The one category of all lines of this library.
  static constexpr std::uint32_t kCategory = 0x4000b07;

  /// Writes one printf-style line; costs one flag test while tracing is not usable. The sink runs on the caller's
  /// thread, so call it outside every lock. Arguments that cost something are guarded by IsUsable().
  template <class... Arguments>
  static void Line(const char* format, Arguments... arguments) {
    if (IsUsable() && mFacilityOn(kCategory)) {
      mFormat(kCategory, format, arguments...);
    }
  }

  static bool IsUsable() { return mUsable.load(std::memory_order_acquire); }

  // The entry points are stored before the flag is set and stay as long as it is.
  static FacilityOnFunc mFacilityOn; // "VornTraceFacilityOnFunc"
  static FormatFunc mFormat;         // "VornTraceFormat"
  static std::atomic<bool> mUsable;
};
