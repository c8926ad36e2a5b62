#pragma once

#include "tcpe/net/TCPE_Arrival.h"
#include "tcpe/protocol/TCPE_Frame.h"
#include "tcpe/protocol/TCPE_Limits.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <span>
#include <vector>

/// A synchronous sender's wait for its reply. Lives on the sender's stack.
struct TCPE_Call {
  explicit TCPE_Call(TCPE_Time now) : begin(now) {}

  const TCPE_Time begin;
  TCPE_Arrival arrival; ///< of the reply
  TCPE_FrameHeader header;
  std::vector<std::byte> payload;
  TCPE_CommErr error = eTCPE_CommErr_None;
  std::condition_variable ended;
  std::atomic<bool> hasEnded = false;
};

/// The senders that wait for replies of one peer. Each call ends exactly once. Thread-safe.
class TCPE_PendingCalls {
public:
  explicit TCPE_PendingCalls(const TCPE_Limits& limits) : mLimits(limits) {}

  /// An error when there are too many already, or when the connection has ended.
  TCPE_CommErr Add(std::uint32_t serial, TCPE_Call& call);
  /// A reply usually comes at once, so a wait begins with a short spin: waking a sleeping thread costs more than a
  /// round trip on a fast network. True when the call has ended by then; Wait has to be called all the same.
  static bool Spin(const TCPE_Call& call);
  /// Waits until the call has ended, however that comes about.
  void Wait(std::uint32_t serial, TCPE_Call& call);
  /// Ends a call with an error, if it has not ended yet.
  void Cancel(std::uint32_t serial, TCPE_CommErr error);
  /// False when nobody waits for this reply (any more).
  bool Complete(const TCPE_FrameHeader& header, std::span<const std::byte> payload, const TCPE_Arrival& arrival);
  std::size_t Count() const;
  /// Ends all calls, and those that are still to come.
  void FailAll(TCPE_CommErr error);

private:
  void End(TCPE_Call& call, TCPE_CommErr error);

  const TCPE_Limits& mLimits;
  mutable std::mutex mMutex;
  std::map<std::uint32_t, TCPE_Call*> mCalls;
  TCPE_CommErr mClosed = eTCPE_CommErr_None;
};
