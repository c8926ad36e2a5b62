#include "tcpe/net/TCPE_Connection.h"

#include <trel/Sys_Clock.h>

#include <array>
#include <chrono>
#include <utility>

#include <asio/buffer.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

namespace {

/// Two writes within this time are a burst: what follows is gathered for as long, so that it leaves in few packets.
constexpr TCPE_Time kBurst = 100;

/// Room that is left for heartbeats and farewell, bytes.
constexpr std::size_t kLastWords = 4096;

} // namespace

TCPE_Connection::TCPE_Connection(asio::io_context& context, asio::ip::tcp::socket socket, Owner& owner,
                                 const TCPE_Limits& limits, TCPE_ByteTap& tap, TCPE_Endpoint::Id id,
                                 std::uint32_t address)
    : mLimits(limits), mOwner(owner), mContext(context), mSocket(std::move(socket)), mId(id), mAddress(address),
      mCalls(limits), mTap(tap), mCredits(limits) {}

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

TCPE_CommErr TCPE_Connection::Send(std::span<const std::byte> frame, Kind kind) {
  const std::lock_guard lock(mMutex);
  const std::size_t limit = kind == Kind::farewell ? mLimits.maxOutboundBytes : mLimits.maxOutboundBytes - kLastWords;
  const TCPE_CommErr error = SendOrHoldBack(frame, Urgency::now, limit);
  if (error == eTCPE_CommErr_QueueFull && kind == Kind::reply) {
    ReportTooSlow();
  } else if (error == eTCPE_CommErr_None && kind == Kind::query) {
    TCPE_PeerTraffic::Add(mTraffic->sent.commands, 1);
  }
  return error;
}

std::optional<TCPE_CommErr> TCPE_Connection::TrySendCommand(std::span<const std::byte> frame, Keeping keeping,
                                                            std::size_t* keptByThisJob) {
  const std::lock_guard lock(mMutex);
  if (mWaitingEnded != eTCPE_CommErr_None) {
    return mWaitingEnded;
  }
  if (!IsAnybodyWaiting() && MaySendCommand(frame)) {
    return SendCommandNow(frame);
  }
  if (keeping == Keeping::no || (keeping == Keeping::ofHandler && !HasRoomToKeep(frame, mLimits.maxKeptOfHandlers))) {
    return std::nullopt;
  }
  if (!HasRoomToKeep(frame, mLimits.maxKeptCommands)) {
    ReportTooSlow();
    return eTCPE_CommErr_QueueFull;
  }
  Keep(frame);
  if (keptByThisJob != nullptr) {
    ++*keptByThisJob;
  }
  WatchProgress();
  SendWaiting();
  return eTCPE_CommErr_None;
}

bool TCPE_Connection::LineUp(Waiter& waiter) {
  const std::lock_guard lock(mMutex);
  if (mWaitingEnded != eTCPE_CommErr_None) {
    waiter.error = mWaitingEnded;
    return false;
  }
  if (!IsAnybodyWaiting() && MaySendCommand(waiter.frame)) {
    waiter.error = SendCommandNow(waiter.frame);
    return false;
  }
  mWaiters.push_back(&waiter);
  WatchProgress();
  if (mSocket && !mHasFailed && QueuedBytes() != 0) { // what is gathered is what the credit is waited for
    WriteNow();
  }
  return true;
}

void TCPE_Connection::Await(Waiter& waiter) {
  std::unique_lock lock(mMutex);
  waiter.ended.wait(lock, [&waiter] { return waiter.hasEnded; });
}

bool TCPE_Connection::HasWaitingSenders() const {
  const std::lock_guard lock(mMutex);
  return IsAnybodyWaiting() || mCalls.Count() != 0;
}

TCPE_Connection::Flow TCPE_Connection::GetFlow() const {
  const std::lock_guard lock(mMutex);
  return {.out = mWaitingEnded == eTCPE_CommErr_None ? static_cast<std::size_t>(mCredits.Out()) : 0,
          .kept = mKept.size(),
          .waiting = mWaiters.size()};
}

void TCPE_Connection::SendOfSession(std::span<const std::byte> bytes) {
  const std::lock_guard lock(mMutex);
  if (SendInTurn(bytes, Urgency::now, mLimits.maxOutboundBytes) == eTCPE_CommErr_QueueFull) {
    ReportTooSlow();
  }
  if (std::exchange(mFirstWordIsDue, false) && !mHeldBack.empty()) {
    if (SendInTurn(std::exchange(mHeldBack, {}), Urgency::now, mLimits.maxOutboundBytes) == eTCPE_CommErr_QueueFull) {
      ReportTooSlow();
    }
    SendWaiting();
  }
}

void TCPE_Connection::ToldNothing() {
  if (!std::exchange(mHasHeard, true)) {
    const std::lock_guard lock(mMutex);
    mCredits.ToldNothing();
    SendWaiting();
  }
}

void TCPE_Connection::Told(std::uint32_t finished) {
  mHasHeard = true;
  const std::lock_guard lock(mMutex);
  mCredits.Told(finished, Sys_Clock::RawMicroseconds());
  SendWaiting();
}

void TCPE_Connection::NoteFinished() {
  if (mSession && mSession->NoteFinished() && !mHasEnded) {
    asio::post(mContext, [self = shared_from_this()] { self->mOwner.OnTellingDue(self->mId); });
  }
}

void TCPE_Connection::EndWaiting(TCPE_CommErr error, bool inGoodOrder) {
  const std::lock_guard lock(mMutex);
  if (mWaitingEnded != eTCPE_CommErr_None) {
    return;
  }
  mWaitingEnded = error;
  TCPE_PeerTraffic::Add(mTraffic->sent.abandoned, mCredits.Out() + mKept.size());
  while (inGoodOrder && !mKept.empty() &&
         SendOrHoldBack(mKept.front(), Urgency::soon, CommandLimit()) == eTCPE_CommErr_None) {
    mKept.pop_front();
  }
  mKept.clear();
  mKeptBytes = 0;
  for (Waiter* waiter : std::exchange(mWaiters, {})) {
    waiter->error = error;
    waiter->hasEnded = true;
    waiter->ended.notify_one();
  }
  mCredits.SetWaiting(false, 0);
}

bool TCPE_Connection::MaySendCommand(std::span<const std::byte> frame) {
  return mCredits.MaySend() && HasRoom(SizeToSend(frame), CommandLimit());
}

bool TCPE_Connection::HasRoom(std::size_t size, std::size_t limit) {
  if (mFirstWordIsDue) {
    return mHeldBackSize + size <= limit;
  }
  if (QueuedBytes() + size > limit && mSocket && !mHasFailed && !WriteQueue()) {
    EndWriting(); // then everything has room, and fails
  }
  return QueuedBytes() + size <= limit; // it may have been waiting for this side's network thread alone
}

TCPE_CommErr TCPE_Connection::SendCommandNow(std::span<const std::byte> frame) {
  const TCPE_CommErr error = SendOrHoldBack(frame, Urgency::soon, CommandLimit());
  if (error == eTCPE_CommErr_None) {
    mCredits.NoteSent();
    TCPE_PeerTraffic::Add(mTraffic->sent.commands, 1);
  }
  return error;
}

void TCPE_Connection::SendWaiting() {
  if (!IsAnybodyWaiting()) {
    return;
  }
  while (!mKept.empty() && MaySendCommand(mKept.front())) {
    SendOrHoldBack(mKept.front(), Urgency::soon, CommandLimit()); // if it fails, the connection ends
    mCredits.NoteSent();
    mKeptBytes -= mKept.front().size();
    mKept.pop_front();
  }
  while (mKept.empty() && !mWaiters.empty() && MaySendCommand(mWaiters.front()->frame)) {
    Waiter& waiter = *mWaiters.front();
    mWaiters.pop_front();
    waiter.error = SendCommandNow(waiter.frame);
    waiter.hasEnded = true;
    waiter.ended.notify_one();
  }
  KeepForHandlers();
  mCredits.SetWaiting(IsAnybodyWaiting(), Sys_Clock::RawMicroseconds());
}

void TCPE_Connection::Keep(std::span<const std::byte> frame) {
  mKept.emplace_back(frame.begin(), frame.end());
  mKeptBytes += frame.size();
  TCPE_PeerTraffic::Add(mTraffic->sent.commands, 1);
}

/// Without this two systems whose handlers wait to answer each other would wait until all that is kept has gone, which
/// it does only when one of them goes on.
void TCPE_Connection::KeepForHandlers() {
  std::erase_if(mWaiters, [this](Waiter* waiter) {
    const bool isKept = waiter->isHandler && HasRoomToKeep(waiter->frame, mLimits.maxKeptOfHandlers);
    if (isKept) {
      Keep(waiter->frame);
      waiter->hasEnded = true;
      waiter->ended.notify_one();
    }
    return isKept;
  });
}

void TCPE_Connection::WatchProgress() {
  mCredits.SetWaiting(true, Sys_Clock::RawMicroseconds());
  if (!std::exchange(mIsWatching, true)) {
    asio::post(mContext, [self = shared_from_this()] { self->CheckProgress(); });
  }
}

void TCPE_Connection::CheckProgress() {
  if (ClearPaused()) { // the credit that is waited for may stand behind commands that are not read
    mOwner.OnReadingDue(shared_from_this());
  }
  const std::lock_guard lock(mMutex);
  const TCPE_Time deadline = mCredits.Deadline();
  mIsWatching = deadline != TCPE_Credits::kNever && Sys_Clock::RawMicroseconds() < deadline;
  if (mIsWatching) {
    auto timer = std::make_shared<asio::steady_timer>(
        mContext, std::chrono::steady_clock::time_point(std::chrono::microseconds(deadline)));
    timer->async_wait([self = shared_from_this(), timer](const asio::error_code&) { self->CheckProgress(); });
  } else if (deadline != TCPE_Credits::kNever) {
    ReportTooSlow();
  }
}

TCPE_CommErr TCPE_Connection::SendOrHoldBack(std::span<const std::byte> frame, Urgency urgency, std::size_t limit) {
  if (!mFirstWordIsDue) {
    const TCPE_CommErr error = SendInTurn(frame, urgency, limit);
    if (error != eTCPE_CommErr_None) {
      return error;
    }
  } else if (const std::size_t size = SizeToSend(frame); HasRoom(size, limit)) {
    mHeldBack.insert(mHeldBack.end(), frame.begin(), frame.end());
    mHeldBackSize += size;
  } else {
    return eTCPE_CommErr_QueueFull;
  }
  TCPE_PeerTraffic::Add(mTraffic->sent.frames, 1);
  return eTCPE_CommErr_None;
}

TCPE_CommErr TCPE_Connection::SendInTurn(std::span<const std::byte> bytes, Urgency urgency, std::size_t limit) {
  if (!mSocket || mClosesWhenSent || mHasFailed) {
    return eTCPE_CommErr_ConnectionLost;
  }
  if (!HasRoom(SizeToSend(bytes), limit)) {
    return eTCPE_CommErr_QueueFull;
  }
  if (TCPE_FrameTagger* tagger = Tagger()) { // there is room now: what is tagged has to leave
    mTagged.clear();
    tagger->AppendTagged(bytes, mTagged);
    bytes = mTagged;
  }
  bool isSound = !mHasFailed;
  const TCPE_Time now = Sys_Clock::RawMicroseconds();
  // Also when something is queued: then the network thread is not coming to it.
  const bool isBurst = now - mLastWrite <= kBurst;
  if (isSound && (urgency == Urgency::now || !isBurst)) {
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

void TCPE_Connection::Open(std::shared_ptr<TCPE_Session> session) {
  mPeerInstance = session->PeerInstance();
  const std::lock_guard lock(mMutex);
  mSession = std::move(session);
  mFirstWordIsDue = true;
}

void TCPE_Connection::NoteReceived(std::span<const std::byte> bytes, const TCPE_Arrival& arrival) {
  if (const TCPE_ByteTap::Turn turn(mTap); turn) {
    Tell(turn, TCPE_TappedBytes::Event::received, bytes);
  }
  mLastArrival = arrival;
  mLastReceived.store(arrival.read, std::memory_order_relaxed);
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
    if (IsAnybodyWaiting()) {
      mCredits.NoteWritten(Sys_Clock::RawMicroseconds());
    }
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

bool TCPE_Connection::WriteNow() {
  if (!WriteQueue()) {
    EndWriting();
    return false;
  }
  mLastWrite = Sys_Clock::RawMicroseconds();
  if (mSession) {
    mSession->NoteSent(mLastWrite);
  }
  return true;
}

void TCPE_Connection::FlushLater() {
  if (!mFlushIsDue) {
    mFlushIsDue = true;
    asio::post(mContext, [self = shared_from_this()] { self->Flush(); });
  }
}

void TCPE_Connection::Flush() {
  const std::lock_guard lock(mMutex);
  if (!mSocket) {
    return;
  }
  const bool isBurst = QueuedBytes() != 0;
  if (!WriteNow()) {
    return;
  }
  const bool isStuck = QueuedBytes() != 0;
  SendWaiting();
  if (isStuck) {
    mSocket->async_wait(asio::ip::tcp::socket::wait_write,
                        [self = shared_from_this()](const asio::error_code&) { self->Flush(); });
  } else if (mClosesWhenSent) {
    CloseSocket();
  } else if (isBurst) {
    // Not a member: a connection may outlive the engine, in the hand of a host that pumps.
    auto timer = std::make_shared<asio::steady_timer>(mContext, std::chrono::microseconds(kBurst));
    timer->async_wait([self = shared_from_this(), timer](const asio::error_code&) { self->Flush(); });
  } else {
    mFlushIsDue = false;
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
  if (!std::exchange(mIsTooSlow, true)) {
    asio::post(mContext,
               [self = shared_from_this()] { self->mOwner.OnTransportFailed(self->mId, eNetworkError_PeerTooSlow); });
  }
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
