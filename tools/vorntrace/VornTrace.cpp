// A trace library: writes each line that it is given, with the time (UTC, microseconds), process, thread and category,
// to the end of the file that the environment variable VORNTRACE_FILE names, or to standard error. Several threads and
// processes may write to one file; lines stay whole. docs/tracing.md shows it at work.

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#if defined(_WIN32)
#include <windows.h>
#define VORNTRACE_EXPORT extern "C" __declspec(dllexport)
#else
#include <unistd.h>
#if defined(__linux__)
#include <sys/syscall.h>
#else
#include <pthread.h>
#endif
#define VORNTRACE_EXPORT extern "C" __attribute__((visibility("default")))
#endif

namespace {

constexpr std::size_t kLongestLine = 2048; // longer ones are cut

std::FILE* OpenSink() {
  const char* const name = std::getenv("VORNTRACE_FILE");
  std::FILE* const file = name != nullptr && *name != '\0' ? std::fopen(name, "a") : nullptr;
  if (file == nullptr) {
    return stderr;
  }
  // Wide enough for a line to reach the file in one piece.
  std::setvbuf(file, nullptr, _IOFBF, 2 * kLongestLine);
  return file;
}

// Never closed: other threads may trace until the very end.
std::FILE* Sink() {
  static std::FILE* const sSink = OpenSink();
  return sSink;
}

long long ProcessId() {
#if defined(_WIN32)
  return GetCurrentProcessId();
#else
  return getpid();
#endif
}

long long ThreadId() {
#if defined(_WIN32)
  return GetCurrentThreadId();
#elif defined(__linux__)
  return syscall(SYS_gettid);
#else
  std::uint64_t id = 0;
  pthread_threadid_np(nullptr, &id);
  return static_cast<long long>(id);
#endif
}

int FormatPrefix(char* text, std::size_t size, std::uint32_t category) {
  using namespace std::chrono;
  const auto now = floor<microseconds>(system_clock::now());
  const auto today = floor<days>(now);
  const year_month_day date(today);
  const hh_mm_ss time(now - today);
  return std::snprintf(
      text, size, "%04d-%02u-%02uT%02d:%02d:%02d.%06dZ %lld/%lld 0x%07x ", static_cast<int>(date.year()),
      static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), static_cast<int>(time.hours().count()),
      static_cast<int>(time.minutes().count()), static_cast<int>(time.seconds().count()),
      static_cast<int>(time.subseconds().count()), ProcessId(), ThreadId(), static_cast<unsigned>(category));
}

/// Advances over what snprintf wanted to write; leaves a byte for the end of the line.
std::size_t Advanced(std::size_t length, int written) {
  return std::min(length + static_cast<std::size_t>(std::max(written, 0)), kLongestLine - 1);
}

} // namespace

VORNTRACE_EXPORT int VornTraceIsActiveFunc() { return 1; }

VORNTRACE_EXPORT bool VornTraceFacilityOnFunc(std::uint32_t /*category*/) { return true; }

VORNTRACE_EXPORT void VornTraceFormat(std::uint32_t category, const char* format, ...) {
  std::array<char, kLongestLine> line;
  std::size_t length = Advanced(0, FormatPrefix(line.data(), kLongestLine, category));
  std::va_list arguments;
  va_start(arguments, format);
  length = Advanced(length, std::vsnprintf(line.data() + length, kLongestLine - length, format, arguments));
  va_end(arguments);
  if (line[length - 1] != '\n') {
    line[length++] = '\n';
  }
  std::fwrite(line.data(), 1, length, Sink());
  std::fflush(Sink());
}

// What else a program may look for before it takes this library for one. libtrel calls none of these, and what they
// take and give differs between trace libraries; here they do nothing.
#define VORNTRACE_UNUSED(NAME)                                                                                         \
  VORNTRACE_EXPORT void NAME() {}
VORNTRACE_UNUSED(VornTraceReloadConfigsFunc)
VORNTRACE_UNUSED(VornTraceFormatQuiet)
VORNTRACE_UNUSED(VornTraceFormatTimestamp)
VORNTRACE_UNUSED(VornTracePuts)
VORNTRACE_UNUSED(VornTraceMem)
VORNTRACE_UNUSED(VornTraceStack)
VORNTRACE_UNUSED(VornTraceChangeFacilityPriorityFunc)
VORNTRACE_UNUSED(VornTraceRegisterHandlerFunc)
VORNTRACE_UNUSED(VornTraceSetClockCallbackFunc)
VORNTRACE_UNUSED(VornTraceSetNameFunc)
VORNTRACE_UNUSED(VornTraceOSErrToString)
VORNTRACE_UNUSED(VornTraceLegacyFormat)
VORNTRACE_UNUSED(VornTraceGetTracePath)
