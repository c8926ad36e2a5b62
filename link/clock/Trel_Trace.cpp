#include <trel/SPSStartupOption.h>

#include "link/clock/Trel_Trace.h"

#include <array>
#include <cstddef>
#include <filesystem>
#include <string_view>

namespace {

// What a trace library has, in the order in which it is resolved. Three are used; a library that lacks any of the
// others is not the one that we know.
constexpr std::array kEntryPoints = {
    "VornTraceIsActiveFunc",
    "VornTraceReloadConfigsFunc",
    "VornTraceFormat",
    "VornTraceFormatQuiet",
    "VornTraceFormatTimestamp",
    "VornTracePuts",
    "VornTraceMem",
    "VornTraceStack",
    "VornTraceChangeFacilityPriorityFunc",
    "VornTraceRegisterHandlerFunc",
    "VornTraceFacilityOnFunc",
    "VornTraceSetClockCallbackFunc",
    "VornTraceSetNameFunc",
    "VornTraceOSErrToString",
    "VornTraceLegacyFormat",
    "VornTraceGetTracePath",
};

constexpr std::size_t PositionOf(std::string_view name) {
  std::size_t position = 0;
  while (kEntryPoints.at(position) != name) {
    ++position;
  }
  return position;
}
constexpr std::size_t kIsActive = PositionOf("VornTraceIsActiveFunc");
constexpr std::size_t kFormat = PositionOf("VornTraceFormat");
constexpr std::size_t kFacilityOn = PositionOf("VornTraceFacilityOnFunc");

} // namespace

Trel_Trace::FacilityOnFunc Trel_Trace::mFacilityOn = nullptr;
Trel_Trace::FormatFunc Trel_Trace::mFormat = nullptr;
std::atomic<bool> Trel_Trace::mUsable{false};

void Trel_Trace::BindInstalled() {
  std::filesystem::path directory = Sys_DynamicLibrary::SystemDirectory();
  if (directory.empty()) {
    directory = SPSStartupOptionText("TraceLibraryDirectory", "");
  }
  // Without a directory the operating system would search for the file in places of its own.
  if (!directory.empty()) {
    const Sys_DynamicLibrary library(directory / "VornTrace.dll");
    Bind([&library](const char* name) { return library.Resolve(name); });
  }
}

void Trel_Trace::Bind(const Resolver& resolve) {
  mUsable.store(false, std::memory_order_release);
  std::array<Sys_DynamicLibrary::Function, kEntryPoints.size()> functions = {};
  for (std::size_t position = 0; position < kEntryPoints.size(); ++position) {
    functions[position] = resolve(kEntryPoints[position]);
    if (functions[position] == nullptr) {
      return;
    }
  }
  mFacilityOn = reinterpret_cast<FacilityOnFunc>(functions[kFacilityOn]);
  mFormat = reinterpret_cast<FormatFunc>(functions[kFormat]);
  const int answer =
      Cmn_HostCall::Ask(Cmn_HostCall::Kind::trace, 0, reinterpret_cast<IsActiveFunc>(functions[kIsActive]));
  mUsable.store((static_cast<unsigned>(answer) & 0xffU) != 0, std::memory_order_release);
}
