#include "tcpe/net/TCPE_PendingCalls.h"

#include <trel/Sys_Clock.h>

#include <chrono>

namespace {

constexpr TCPE_Time kSpin = 45; // from the begin of the call

void Relax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__) && defined(__GNUC__)
  asm volatile("yield");
#endif
}

} // namespace

TCPE_CommErr TCPE_PendingCalls::Add(std::uint32_t serial, TCPE_Call& call) {
  const std::lock_guard lock(mMutex);
  if (mClosed != eTCPE_CommErr_None) {
    return mClosed;
  }
  if (mCalls.size() >= mLimits.maxPendingCalls) {
    return eTCPE_CommErr_QueueFull;
  }
  mCalls.emplace(serial, &call);
  return eTCPE_CommErr_None;
}

bool TCPE_PendingCalls::Spin(const TCPE_Call& call) {
  bool hasEnded = false;
  while (!(hasEnded = call.hasEnded.load(std::memory_order_acquire)) &&
         Sys_Clock::RawMicroseconds() - call.begin < kSpin) {
    Relax();
  }
  return hasEnded;
}

void TCPE_PendingCalls::Wait(std::uint32_t serial, TCPE_Call& call) {
  // Also after a successful spin: whoever ended the call may still be inside, and the call is about to be destroyed.
  std::unique_lock lock(mMutex);
  const auto hasEnded = [&call] { return call.hasEnded.load(std::memory_order_relaxed); };
  const std::chrono::steady_clock::time_point deadline{std::chrono::microseconds(call.begin + mLimits.reply)};
  if (!call.ended.wait_until(lock, deadline, hasEnded)) {
    mCalls.erase(serial);
    End(call, eTCPE_CommErr_TimedOut);
  }
}

void TCPE_PendingCalls::Cancel(std::uint32_t serial, TCPE_CommErr error) {
  const std::lock_guard lock(mMutex);
  if (const auto position = mCalls.find(serial); position != mCalls.end()) {
    End(*position->second, error);
    mCalls.erase(position);
  }
}

bool TCPE_PendingCalls::Complete(const TCPE_FrameHeader& header, std::span<const std::byte> payload,
                                 const TCPE_Arrival& arrival) {
  const std::lock_guard lock(mMutex);
  const auto position = mCalls.find(header.serial);
  if (position == mCalls.end()) {
    return false;
  }
  TCPE_Call& call = *position->second;
  mCalls.erase(position);
  call.arrival = arrival.NotBefore(call.begin);
  call.header = header;
  call.payload.assign(payload.begin(), payload.end());
  End(call, eTCPE_CommErr_None);
  return true;
}

std::size_t TCPE_PendingCalls::Count() const {
  const std::lock_guard lock(mMutex);
  return mCalls.size();
}

void TCPE_PendingCalls::FailAll(TCPE_CommErr error) {
  const std::lock_guard lock(mMutex);
  mClosed = error;
  for (const auto& [serial, call] : mCalls) {
    End(*call, error);
  }
  mCalls.clear();
}

void TCPE_PendingCalls::End(TCPE_Call& call, TCPE_CommErr error) {
  call.error = error;
  call.hasEnded.store(true, std::memory_order_release);
  call.ended.notify_one();
}
