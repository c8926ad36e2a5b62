#include <trel/Cmn_Assert.h>
#include <trel/Sys_Clock.h>
#include <trel/Sys_Umid.h>

#include <atomic>

#include <sys/random.h>
#include <unistd.h>

namespace {

std::uint64_t NumberFromClock() {
  static constinit std::atomic<std::uint64_t> sCount{0};
  constexpr std::uint64_t kGoldenRatio = 0x9e3779b97f4a7c15U; // spreads the counter over all bits
  const auto now = static_cast<std::uint64_t>(Sys_Clock::RawMicroseconds());
  const auto process = static_cast<std::uint64_t>(getpid());
  return (sCount.fetch_add(1, std::memory_order_relaxed) + 1) * kGoldenRatio + now + (process << 44U);
}

} // namespace

std::uint64_t Sys_Umid::Random64() {
  std::uint64_t number = 0;
  if (getentropy(&number, sizeof number) != 0) {
    Cmn_Assert::HandleMagicAssert(false, R"(getentropy(&number, sizeof number) == 0@$^$@..\Sys_Umid)", __LINE__);
    return NumberFromClock();
  }
  return number;
}

std::int32_t Sys_Umid::RandomPositive31() {
  std::int32_t number = 0;
  while (number == 0) {
    number = static_cast<std::int32_t>(Random64() >> 33U);
  }
  return number;
}
