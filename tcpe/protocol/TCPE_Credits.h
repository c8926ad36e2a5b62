#pragma once

#include "tcpe/protocol/TCPE_Limits.h"

#include <atomic>
#include <cstdint>

/// What the sending end of a connection knows of its asynchronous commands: how many are out that the receiver has not
/// finished, whether another one may go, and whether somebody has waited for that in vain for too long.
///
/// A receiver that knows credits tells what it has finished before it says anything else. One that does not is not
/// limited by them. One thread at a time.
class TCPE_Credits {
public:
  static constexpr TCPE_Time kNever = INT64_MAX;

  explicit TCPE_Credits(const TCPE_Limits& limits) : mLimits(limits) {}

  /// The receiver tells how many commands it has finished since the connection opened, modulo 2^32. A number that
  /// cannot be is ignored.
  void Told(std::uint32_t finished, TCPE_Time now);
  /// The receiver has said something else; if it has never told before, it knows no credits.
  void ToldNothing() { mIsLimited = mHasTold; }
  bool MaySend() const { return !mIsLimited || mSent - mFinished < mLimits.maxCommandsOut; }
  void NoteSent(std::uint64_t commands = 1) { mSent += commands; }
  /// Commands that are out; 0 for a receiver that does not tell.
  std::uint64_t Out() const { return mIsLimited ? mSent - mFinished : 0; }

  /// Somebody waits to send, or nobody does any more.
  void SetWaiting(bool isWaiting, TCPE_Time now);
  /// Bytes have gone out. That is progress when room is what the waiting ones lack.
  void NoteWritten(TCPE_Time now) { mProgress = MaySend() ? now : mProgress; }
  /// When the receiver is too slow, unless there is progress before; kNever while nobody waits.
  TCPE_Time Deadline() const { return mIsWaiting ? mProgress + mLimits.tooSlow : kNever; }

private:
  const TCPE_Limits& mLimits;
  std::uint64_t mSent = 0;
  std::uint64_t mFinished = 0;
  TCPE_Time mProgress = 0; ///< the last one, or when the waiting began
  bool mIsLimited = true;
  bool mHasTold = false;
  bool mIsWaiting = false;
};

/// The receiving end: counts the commands that arrived and those that are finished, and decides when the sender is to
/// be told. One thread counts arrivals and tells; any thread finishes.
class TCPE_FinishedCount {
public:
  explicit TCPE_FinishedCount(const TCPE_Limits& limits) : mLimits(limits) {}

  void NoteArrived() {
    if (++mArrived - mTold.load(std::memory_order_relaxed) == mLimits.maxCommandsOut) {
      mMustBeWaiting = true;
    }
  }
  /// @return whether the one who tells has to look at the deadline; once for each telling
  bool NoteFinished();

  /// What to tell now.
  std::uint32_t Tell(TCPE_Time now);
  /// When to tell: at once for the first time, so that the sender knows that it is told; kNever while there is nothing
  /// new.
  TCPE_Time Deadline() const;
  std::uint64_t Finished() const { return mFinished.load(std::memory_order_relaxed); }

private:
  std::uint64_t Untold() const { return Finished() - mTold.load(std::memory_order_relaxed); }

  std::uint64_t mArrived = 0;
  bool mHasTold = false;
  TCPE_Time mLastTold = 0;
  // What those who finish read seldom changes; what they write nobody else reads often.
  alignas(64) const TCPE_Limits& mLimits;
  std::atomic<std::uint64_t> mTold = 0;
  std::atomic<bool> mMustBeWaiting = false; ///< the sender has no credit, as far as one can see from here
  std::atomic<bool> mIsAnnounced = false;   ///< NoteFinished has said so, and nothing has been told since
  alignas(64) std::atomic<std::uint64_t> mFinished = 0;
};
