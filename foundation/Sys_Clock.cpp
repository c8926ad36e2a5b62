#include <trel/Cmn_Assert.h>
#include <trel/Cmn_NumberToText.h>
#include <trel/SPSStartupOption.h>
#include <trel/Sys_Clock.h>

#include "foundation/Sys_ClockScale.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>

#if defined(__linux__)
#include <sys/prctl.h>
#include <time.h> // NOLINT(modernize-deprecated-headers): clock_nanosleep is no part of <ctime>
#endif

namespace {

constexpr std::int64_t kSpinTime = 50; // microseconds

constinit std::atomic<Sys_Clock::Source> sSource{nullptr};

std::int64_t RawAtLoad() {
  static const std::int64_t sRaw = Sys_Clock::RawMicroseconds();
  return sRaw;
}

std::int64_t DriftPPM() {
  const std::int32_t drift = SPSStartupOptionSInt32("SimulatedClockDriftPPM", 0);
  const std::int64_t limited =
      std::clamp<std::int64_t>(drift, -Sys_ClockScale::kMaxDriftPPM, Sys_ClockScale::kMaxDriftPPM);
  if (limited != drift) {
    const std::string text = "start-up option SimulatedClockDriftPPM: " + Cmn_Int32ToString(drift) +
                             " is out of range, using " + Cmn_Int64ToString(limited) + R"(@$^$@..\Sys_Clock)";
    Cmn_Assert::HandleMagicAssert(false, text.c_str(), __LINE__);
  }
  return limited;
}

// Null before Init. Never destroyed: threads of the library may still ask for the time while the process ends.
constinit std::atomic<const Sys_ClockScale*> sScale{nullptr};

const Sys_ClockScale& Scale() {
  static const Sys_ClockScale sPlain(RawAtLoad(), 0, 0);
  const Sys_ClockScale* const scale = sScale.load(std::memory_order_acquire);
  return scale != nullptr ? *scale : sPlain;
}

// The first call happens when the library is loaded, not when somebody first asks for the time, perhaps in real time.
[[maybe_unused]] const Sys_ClockScale& sTakenAtLoad = Scale();

#if defined(__linux__)

void SleepUntilRaw(std::int64_t rawTime) {
  const int slack = prctl(PR_GET_TIMERSLACK);
  prctl(PR_SET_TIMERSLACK, 1UL); // nanoseconds; 0 would mean the default
  timespec deadline = {};
  deadline.tv_sec = static_cast<time_t>(rawTime / 1'000'000);
  deadline.tv_nsec = static_cast<long>(rawTime % 1'000'000 * 1000);
  while (Sys_Clock::RawMicroseconds() < rawTime &&
         clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) != 0) {
  }
  if (slack > 0) {
    prctl(PR_SET_TIMERSLACK, static_cast<unsigned long>(slack));
  }
}

#else

void SleepUntilRaw(std::int64_t rawTime) {
  std::this_thread::sleep_until(std::chrono::steady_clock::time_point(std::chrono::microseconds(rawTime)));
}

#endif

} // namespace

void Sys_Clock::Init() {
  static std::once_flag sOnce;
  std::call_once(sOnce, [] {
    const std::int64_t offset = std::int64_t{SPSStartupOptionSInt32("SimulatedClockOffsetMilliseconds", 0)} * 1000;
    sScale.store(new Sys_ClockScale(RawAtLoad(), offset, DriftPPM()), std::memory_order_release);
  });
}

std::int64_t Sys_Clock::Microseconds() noexcept {
  const std::optional<std::int64_t> ofSource = OfSource();
  return ofSource ? *ofSource : FromRaw(RawMicroseconds());
}

std::int64_t Sys_Clock::RawMicroseconds() noexcept {
  const auto sinceZero = std::chrono::steady_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::microseconds>(sinceZero).count();
}

std::int64_t Sys_Clock::FromRaw(std::int64_t rawTime) noexcept { return Scale().FromRaw(rawTime); }

std::int64_t Sys_Clock::ToRaw(std::int64_t hostTime) noexcept { return Scale().ToRaw(hostTime); }

void Sys_Clock::WaitUntil(std::int64_t hostTime) {
  const std::int64_t rawTime = ToRaw(hostTime);
  if (rawTime - kSpinTime > RawMicroseconds()) {
    SleepUntilRaw(rawTime - kSpinTime);
  }
  while (RawMicroseconds() < rawTime) {
  }
}

void Sys_Clock::SetSource(Source source) noexcept { sSource.store(source, std::memory_order_release); }

std::optional<std::int64_t> Sys_Clock::OfSource() noexcept {
  const Source source = sSource.load(std::memory_order_acquire);
  return source != nullptr ? std::optional(source()) : std::nullopt;
}
