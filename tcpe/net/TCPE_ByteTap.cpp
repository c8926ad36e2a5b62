#include "tcpe/net/TCPE_ByteTap.h"

#include "foundation/Cmn_HostCall.h"

#include <trel/Sys_Clock.h>

void TCPE_ByteTap::Set(TCPE_ByteTapProc proc, void* context) {
  const std::lock_guard lock(mMutex);
  mProc = proc;
  mContext = context;
  mIsOn = proc != nullptr;
}

TCPE_ByteTap::Turn::Turn(TCPE_ByteTap& tap) : mTap(tap) {
  if (!tap.mIsOn.load(std::memory_order_relaxed)) {
    return;
  }
  mLock = std::unique_lock(tap.mMutex);
  if (tap.mProc == nullptr) { // removed meanwhile
    mLock.unlock();
    return;
  }
  mBegin = Sys_Clock::RawMicroseconds();
}

void TCPE_ByteTap::Turn::Tell(TCPE_TappedBytes tapped) const {
  tapped.rawTime = mBegin;
  Cmn_HostCall::Run(Cmn_HostCall::Kind::byteTap, [&] { mTap.mProc(tapped, mTap.mContext); });
}

void TCPE_ByteTap::Turn::TellDatagram(TCPE_TappedBytes::Event event, const End& local, const End& peer,
                                      std::span<const std::byte> datagram) const {
  Tell({.event = event,
        .transport = TCPE_TappedBytes::Transport::udp,
        .localAddress = local.address,
        .localPort = local.port,
        .peerAddress = peer.address,
        .peerPort = peer.port,
        .bytes = datagram});
}
