#pragma once

#include <trel/TCPE_TappedBytes.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>

/// Where the host listens to what passes on the network. Without a listener it costs one look at a flag. Thread-safe.
class TCPE_ByteTap {
public:
  /// Null removes the tap. Returns when no call of the one before is under way.
  void Set(TCPE_ByteTapProc proc, void* context);

  /// While one lives, nobody else sends, or tells what has arrived: a reply cannot be told before its command. Begins
  /// before the sending and after the receiving. False without a listener; then it changes nothing.
  class Turn {
  public:
    explicit Turn(TCPE_ByteTap& tap);
    explicit operator bool() const { return mLock.owns_lock(); }
    /// Fills in the time at which the turn began.
    void Tell(TCPE_TappedBytes tapped) const;
    struct End {
      std::uint32_t address;
      std::uint16_t port;
    };
    void TellDatagram(TCPE_TappedBytes::Event event, const End& local, const End& peer,
                      std::span<const std::byte> datagram) const;

  private:
    TCPE_ByteTap& mTap;
    std::unique_lock<std::mutex> mLock;
    std::int64_t mBegin = 0;
  };

private:
  std::atomic<bool> mIsOn = false;
  std::mutex mMutex;
  TCPE_ByteTapProc mProc = nullptr;
  void* mContext = nullptr;
};
