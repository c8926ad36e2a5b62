#pragma once

#include "foundation/Cmn_HostCall.h"
#include "foundation/Sys_DynamicLibrary.h"

#include <atomic>
#include <cstdint>
#include <functional>

/// The trace facility of the host installation. Until one has been bound the flag is clear and the entry points are
/// null.
class Trel_Trace {
public:
  using IsActiveFunc = int (*)(); // only the low byte of the answer counts
  using FacilityOnFunc = bool (*)(std::uint32_t category);
  using FormatFunc = void (*)(std::uint32_t category, const char* format, ...);
  using Resolver = std::function<Sys_DynamicLibrary::Function(const char* name)>;

  /// The one category of all lines of this library.
  static constexpr std::uint32_t kCategory = 0x4000b07;

  /// Binds the trace library of this installation, "VornTrace.dll" in the system directory or, where there is none, in
  /// the directory of the start-up option TraceLibraryDirectory. Once, before any other thread uses this class.
  static void BindInstalled();

  /// Binds the entry points of a trace library: all of them, or none when one is missing.
  static void Bind(const Resolver& resolve);

  /// Writes one printf-style line; costs one flag test while tracing is not usable. The sink runs on the caller's
  /// thread, so call it outside every lock. Arguments that cost something are guarded by IsUsable().
  template <class... Arguments>
  static void Line(const char* format, Arguments... arguments) {
    if (IsUsable()) {
      Cmn_HostCall::Run(Cmn_HostCall::Kind::trace, [&] {
        if (mFacilityOn(kCategory)) {
          mFormat(kCategory, format, arguments...);
        }
      });
    }
  }

  static bool IsUsable() { return mUsable.load(std::memory_order_acquire); }

  // The entry points are stored before the flag is set and stay as long as it is.
  static FacilityOnFunc mFacilityOn; // "VornTraceFacilityOnFunc"
  static FormatFunc mFormat;         // "VornTraceFormat"
  static std::atomic<bool> mUsable;
};
