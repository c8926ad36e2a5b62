#include "tcpe/net/TCPE_Connection.h"

#include <trel/Sys_Clock.h>

#include <array>
#include <chrono>
#include <utility>

#include <asio/buffer.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

namespace {

/// Two writes within this time are a burst: what follows is gathered, so that it leaves in few packets.
constexpr TCPE_Time kBurst = 100;

} // namespace

TCPE_Connection::TCPE_Connection(asio::io_context& context, asio::ip::tcp::socket socket, Owner& owner,
                                 const TCPE_Limits& limits, TCPE_ByteTap& tap, TCPE_Endpoint::Id id,
                                 std::uint32_t address)
    : mLimits(limits), mOwner(owner), mContext(context), mSocket(std::move(socket)), mId(id), mAddress(address),
      mCalls(limits), mTap(tap) {}

void TCPE_Connection::TransportOpened(bool openedByPeer) {
  asio::error_code gone;
  const asio::ip::tcp::endpoint local = mSocket->local_endpoint(gone);
  const asio::ip::tcp::endpoint peer = mSocket->remote_endpoint(gone);
  if (!gone) {
    mEnds.isOpenedByPeer = openedByPeer;
    mEnds.localAddress = local.address().to_v4().to_uint();
    mEnds.localPort = local.port();
    mEnds.peerAddress = peer.address().to_v4().to_uint();
    mEnds.peerPort = peer.port();
  }
}

void TCPE_Connection::CountIn(std::shared_ptr<TCPE_PeerTraffic> traffic) {
  const std::lock_guard lock(mMutex);
  mTraffic = std::move(traffic);
  TCPE_PeerTraffic::AddAlone(mTraffic->received.bytes, mEarlyReceived);
  TCPE_PeerTraffic::Add(mTraffic->sent.bytes, mEarlySent);
}

TCPE_CommErr TCPE_Connection::Send(std::span<const std::byte> frame, Urgency urgency) {
  const std::lock_guard lock(mMutex);
  if (mAnswerIsDue) {
    const std::size_t size = frame.size() + (Tagger() != nullptr ? kTCPE_TagSize : 0);
    if (mHeldBackSize + size > mLimits.maxOutboundBytes) {
      return eTCPE_CommErr_QueueFull;
    }
    mHeldBack.insert(mHeldBack.end(), frame.begin(), frame.end());
    mHeldBackSize += size;
  } else if (const TCPE_CommErr error = SendInTurn(frame, urgency); error != eTCPE_CommErr_None) {
    return error;
  }
  TCPE_PeerTraffic::Add(mTraffic->sent.frames, 1);
  return eTCPE_CommErr_None;
}

void TCPE_Connection::SendOfSession(std::span<const std::byte> bytes) {
  const std::lock_guard lock(mMutex);
  SendInTurn(bytes, Urgency::now);
  if (std::exchange(mAnswerIsDue, false) && !mHeldBack.empty()) {
    SendInTurn(std::exchange(mHeldBack, {}), Urgency::now);
  }
}

TCPE_CommErr TCPE_Connection::SendInTurn(std::span<const std::byte> bytes, Urgency urgency) {
  if (!mSocket || mClosesWhenSent || mHasFailed) {
    return eTCPE_CommErr_ConnectionLost;
  }
  if (TCPE_FrameTagger* tagger = Tagger()) {
    mTagged.clear();
    tagger->AppendTagged(bytes, mTagged);
    bytes = mTagged;
  }
  const auto isFull = [&] { return QueuedBytes() + bytes.size() > mLimits.maxOutboundBytes; };
  bool isSound = !isFull() || WriteQueue(); // it may be waiting for this side's network thread alone
  if (isSound && isFull()) {
    ReportTooSlow();
    return eTCPE_CommErr_QueueFull;
  }
  const TCPE_Time now = Sys_Clock::RawMicroseconds();
  const bool isQuiet = QueuedBytes() == 0 && now - mLastWrite > kBurst;
  if (isSound && (urgency == Urgency::now || isQuiet)) {
    isSound = WriteQueue() && (QueuedBytes() != 0 || Write(bytes));
    mLastWrite = now;
    if (mSession) {
      mSession->NoteSent(now);
    }
  }
  if (!isSound) {
    EndWriting();
    return eTCPE_CommErr_ConnectionLost;
  }
  mQueue.insert(mQueue.end(), bytes.begin(), bytes.end());
  if (QueuedBytes() != 0) {
    FlushLater();
  }
  return eTCPE_CommErr_None;
}

void TCPE_Connection::Open(std::shared_ptr<TCPE_Session> session, bool answerIsDue) {
  const std::lock_guard lock(mMutex);
  mSession = std::move(session);
  mAnswerIsDue = answerIsDue;
}

void TCPE_Connection::NoteReceived(std::span<const std::byte> bytes, TCPE_Time now) {
  if (const TCPE_ByteTap::Turn turn(mTap); turn) {
    Tell(turn, TCPE_TappedBytes::Event::received, bytes);
  }
  mLastReceived.store(now, std::memory_order_relaxed);
  if (mTraffic) {
    TCPE_PeerTraffic::AddAlone(mTraffic->received.bytes, bytes.size());
  } else {
    mEarlyReceived += bytes.size();
  }
}

std::size_t TCPE_Connection::OutboundBytes() const {
  const std::lock_guard lock(mMutex);
  return QueuedBytes() + mHeldBack.size();
}

void TCPE_Connection::CloseWhenSent() {
  const std::lock_guard lock(mMutex);
  mClosesWhenSent = true;
  if (!mSocket) {
    return;
  }
  if (!WriteQueue() || QueuedBytes() == 0) {
    CloseSocket();
    return;
  }
  FlushLater();
  auto timer = std::make_shared<asio::steady_timer>(mContext, std::chrono::microseconds(mLimits.linger));
  timer->async_wait([self = shared_from_this(), timer](const asio::error_code&) { self->CloseNow(); });
}

void TCPE_Connection::CloseNow() {
  const std::lock_guard lock(mMutex);
  CloseSocket();
}

bool TCPE_Connection::Write(std::span<const std::byte>& bytes) {
  while (!bytes.empty()) {
    asio::error_code error;
    const TCPE_ByteTap::Turn turn(mTap);
    const std::size_t written = mSocket->write_some(asio::buffer(bytes.data(), bytes.size()), error);
    if (error == asio::error::would_block || error == asio::error::try_again) {
      return true;
    }
    if (error) {
      return false;
    }
    if (turn) {
      Tell(turn, TCPE_TappedBytes::Event::sent, bytes.first(written));
    }
    bytes = bytes.subspan(written);
    if (mTraffic) {
      TCPE_PeerTraffic::Add(mTraffic->sent.bytes, written);
    } else {
      mEarlySent += written;
    }
  }
  return true;
}

bool TCPE_Connection::WriteQueue() {
  std::span<const std::byte> queued = std::span<const std::byte>(mQueue).subspan(mQueueBegin);
  if (queued.empty()) {
    return true;
  }
  const bool isSound = Write(queued);
  mQueueBegin = mQueue.size() - queued.size();
  if (queued.empty()) {
    mQueue.clear();
    mQueueBegin = 0;
  } else if (mQueueBegin > mQueue.size() / 2) {
    mQueue.erase(mQueue.begin(), mQueue.begin() + static_cast<std::ptrdiff_t>(mQueueBegin));
    mQueueBegin = 0;
  }
  return isSound;
}

void TCPE_Connection::FlushLater() {
  if (!mFlushIsDue) {
    mFlushIsDue = true;
    asio::post(mContext, [self = shared_from_this()] { self->Flush(); });
  }
}

void TCPE_Connection::Flush() {
  const std::lock_guard lock(mMutex);
  mFlushIsDue = false;
  if (!mSocket) {
    return;
  }
  if (!WriteQueue()) {
    EndWriting();
    return;
  }
  mLastWrite = Sys_Clock::RawMicroseconds();
  if (mSession) {
    mSession->NoteSent(mLastWrite);
  }
  if (QueuedBytes() != 0) {
    mFlushIsDue = true;
    mSocket->async_wait(asio::ip::tcp::socket::wait_write,
                        [self = shared_from_this()](const asio::error_code&) { self->Flush(); });
  } else if (mClosesWhenSent) {
    CloseSocket();
  }
}

/// What the peer said last may still be unread, a farewell among it. So the end is left to the reading side to find,
/// and made sure of here.
void TCPE_Connection::EndWriting() {
  mHasFailed = true;
  mQueue.clear();
  mQueueBegin = 0;
  asio::error_code ignored;
  mSocket->shutdown(asio::ip::tcp::socket::shutdown_both, ignored);
}

void TCPE_Connection::ReportTooSlow() {
  mHasFailed = true;
  asio::post(mContext,
             [self = shared_from_this()] { self->mOwner.OnTransportFailed(self->mId, eNetworkError_PeerTooSlow); });
}

void TCPE_Connection::Tell(const TCPE_ByteTap::Turn& turn, TCPE_TappedBytes::Event event,
                           std::span<const std::byte> bytes) {
  if (mEnds.peerPort != 0) {
    TCPE_TappedBytes tapped = mEnds;
    tapped.event = event;
    tapped.bytes = bytes;
    turn.Tell(tapped);
  }
}

void TCPE_Connection::CloseSocket() {
  if (!mSocket) {
    return;
  }
  asio::error_code error;
  mSocket->shutdown(asio::ip::tcp::socket::shutdown_send, error);
  // Closing with unread bytes would reset the connection, and the reset may overtake what was sent last.
  std::array<std::byte, 4096> rest{};
  for (int reads = 0; reads < 16 && !error; ++reads) {
    const std::size_t count = mSocket->read_some(asio::buffer(rest), error);
    if (const TCPE_ByteTap::Turn turn(mTap); turn && count != 0) {
      Tell(turn, TCPE_TappedBytes::Event::received, std::span(rest).first(count));
    }
  }
  if (const TCPE_ByteTap::Turn turn(mTap); turn) {
    Tell(turn, TCPE_TappedBytes::Event::closed, {});
  }
  mSocket.reset();
}
