#include <trel/Cmn_Assert.h>
#include <trel/Sys_Init.h>
#include <trel/Sys_Umid.h>

#include <chrono>
#include <mutex>

void Sys_Init::PlatformInit() {
  static std::once_flag sOnce;
  std::call_once(sOnce, [] {
    using Period = std::chrono::steady_clock::period;
    static_assert(std::ratio_less_equal_v<Period, std::micro>, "host time is counted in microseconds");
    Sys_Umid::Random64(); // reports a missing source by itself
  });
}
