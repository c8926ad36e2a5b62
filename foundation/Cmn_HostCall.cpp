#include "foundation/Cmn_HostCall.h"

#include <trel/Cmn_Assert.h>

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdio>

namespace {

constexpr std::array kNames{"handler",     "network-error callback", "hook",    "session callback",
                            "command log", "trace library",          "byte tap"};
constinit std::array<std::atomic<std::uint64_t>, kNames.size()> sFailures{};

} // namespace

std::uint64_t Cmn_HostCall::CountFailures() {
  std::uint64_t sum = 0;
  for (const auto& failures : sFailures) {
    sum += failures.load(std::memory_order_relaxed);
  }
  return sum;
}

void Cmn_HostCall::Failed(Kind kind, const char* what) noexcept {
  const auto position = static_cast<std::size_t>(kind);
  const std::uint64_t number = sFailures[position].fetch_add(1, std::memory_order_relaxed) + 1;
  if (kind == Kind::byteTap ||
      !std::has_single_bit(number)) { // a tap is told under locks that a report must not wait for
    return;
  }
  std::array<char, 256> text{};
  std::snprintf(text.data(), text.size(), R"(noexcept(%s): %.150s@$^$@..\Cmn_HostCall)", kNames[position], what);
  Cmn_Assert::HandleMagicAssert(false, text.data(), __LINE__);
}
