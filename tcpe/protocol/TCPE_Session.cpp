#include "tcpe/protocol/TCPE_Session.h"

#include "tcpe/protocol/TCPE_Numbering.h"

#include <algorithm>
#include <utility>

TCPE_Session::TCPE_Session(const TCPE_Limits& limits, const Local& local, Role role,
                           std::vector<std::byte> connectFrame, TCPE_Time now)
    : mLimits(limits), mLocal(local), mConnectFrame(std::move(connectFrame)), mOutput(TCPE_Hello::kSize),
      mLastSent(now), mLastReceived(now), mHandshakeDeadline(now + limits.handshake), mRole(role) {
  mLocal.hello.Write(mOutput.data());
}

std::span<std::byte> TCPE_Session::ReceiveSpace() {
  std::copy(mBuffer.begin() + static_cast<std::ptrdiff_t>(mBegin), mBuffer.begin() + static_cast<std::ptrdiff_t>(mEnd),
            mBuffer.begin());
  mEnd -= mBegin;
  mBegin = 0;
  // Here and not when the connection opens: bytes may be on their way into the space given out before.
  mBuffer.resize(std::max(mBuffer.size(), TCPE_FrameHeader::kSize + MaxPayload()));
  return std::span(mBuffer).subspan(mEnd);
}

void TCPE_Session::Received(std::size_t count, TCPE_Time now) {
  mEnd += count;
  mLastReceived = now;
}

std::optional<TCPE_Session::Event> TCPE_Session::NextEvent(TCPE_Time now) {
  if (mState == State::deciding && !Unread().empty()) {
    return Fail(eNetworkError_MalformedData); // nobody speaks before the verdict
  }
  while (mState != State::ended && mState != State::deciding) {
    const std::span<const std::byte> unread = Unread();
    std::optional<Event> event;
    if (mState == State::hello) {
      if (unread.size() < TCPE_Hello::kSize) {
        break;
      }
      event = OnHello();
    } else {
      if (unread.size() < TCPE_FrameHeader::kSize) {
        break;
      }
      const TCPE_FrameHeader header = TCPE_FrameHeader::Read(unread.data());
      if (!IsWellFormed(header)) {
        return Fail(eNetworkError_MalformedData);
      }
      const std::size_t size = TCPE_FrameHeader::kSize + header.dataLength;
      if (unread.size() < size) {
        break;
      }
      if (TCPE_FrameChecksum(unread.first(size)) != header.checksum) {
        return Fail(eNetworkError_MalformedData);
      }
      mBegin += size;
      mFrameBegan = 0;
      event = OnFrame(header, unread.subspan(TCPE_FrameHeader::kSize, header.dataLength));
    }
    if (event) {
      return event;
    }
  }
  if (mBegin == mEnd || mState == State::deciding) {
    mFrameBegan = 0;
  } else if (mFrameBegan == 0) {
    mFrameBegan = now;
  }
  return NextTimedEvent(now);
}

std::optional<TCPE_Session::Event> TCPE_Session::NextTimedEvent(TCPE_Time now) {
  if (mState == State::ended) {
    return std::nullopt;
  }
  if (!IsOpen()) {
    return now >= mHandshakeDeadline ? std::optional(Fail(eNetworkError_ConnectionLost)) : std::nullopt;
  }
  if (now >= mLastReceived + mLimits.silence) {
    return Fail(eNetworkError_ConnectionLost);
  }
  if (mFrameBegan != 0 && now >= mFrameBegan + mLimits.frame) {
    return Fail(eNetworkError_MalformedData);
  }
  if (mProbeDeadline != 0 && now >= mProbeDeadline) {
    mProbeDeadline = 0;
    return Event{.kind = Event::Kind::probeUnanswered};
  }
  if (now >= mLastSent.load(std::memory_order_relaxed) + mLimits.heartbeat) {
    SendFrame(kTCPE_HeartbeatType, 0, 0, eTCPE_CommErr_None);
    NoteSent(now);
  }
  return std::nullopt;
}

TCPE_Time TCPE_Session::NextDeadline() const {
  if (!IsOpen()) {
    return mHandshakeDeadline;
  }
  TCPE_Time deadline =
      std::min(mLastReceived + mLimits.silence, mLastSent.load(std::memory_order_relaxed) + mLimits.heartbeat);
  if (mFrameBegan != 0) {
    deadline = std::min(deadline, mFrameBegan + mLimits.frame);
  }
  return mProbeDeadline != 0 ? std::min(deadline, mProbeDeadline) : deadline;
}

void TCPE_Session::Accept(TCPE_Time now) {
  SendFrame(mLocal.connectType, kTCPE_Flag_Reply, mConnectSerial, eTCPE_CommErr_None);
  Open(now);
}

void TCPE_Session::Refuse(TCPE_CommErr error) {
  SendFrame(mLocal.connectType, kTCPE_Flag_Reply | kTCPE_Flag_ErrorReply, mConnectSerial, error);
  mState = State::ended;
}

void TCPE_Session::Probe(TCPE_Time now) {
  if (IsOpen() && mProbeDeadline == 0) {
    SendFrame(kTCPE_HeartbeatType, kTCPE_Flag_ReplyWanted, 0, eTCPE_CommErr_None);
    mProbeDeadline = now + mLimits.probe;
  }
}

std::optional<TCPE_Session::Event> TCPE_Session::OnHello() {
  const std::optional<TCPE_Hello> hello = TCPE_Hello::Read(Unread().first<TCPE_Hello::kSize>());
  if (!hello || hello->instance == mLocal.hello.instance) {
    return Fail(eNetworkError_MalformedData);
  }
  mBegin += TCPE_Hello::kSize;
  mPeerInstance = hello->instance;
  // Each side sees the other's hello, so each knows by itself when the two cannot be linked.
  if (hello->majorVersion != mLocal.hello.majorVersion) {
    return Refused(eTCPE_CommErr_OtherNumbering);
  }
  if (hello->authenticationRequired != mLocal.hello.authenticationRequired) {
    return Refused(eTCPE_CommErr_Authentication);
  }
  if (mRole == Role::initiator) {
    mConnectSerial = TCPE_FrameHeader::Read(mConnectFrame.data()).serial;
    mOutput.insert(mOutput.end(), mConnectFrame.begin(), mConnectFrame.end());
    mState = State::reply;
  } else {
    mState = State::connect;
  }
  return std::nullopt;
}

std::optional<TCPE_Session::Event> TCPE_Session::OnFrame(const TCPE_FrameHeader& header,
                                                         std::span<const std::byte> payload) {
  const bool isReply = header.Has(kTCPE_Flag_Reply | kTCPE_Flag_ErrorReply);
  mPeerSystemType = header.senderSystemType;
  if (mState == State::open) {
    if (header.type == mLocal.connectType && !isReply) {
      return Fail(eNetworkError_MalformedData); // a peer introduces itself once
    }
    return header.type == kTCPE_HeartbeatType ? OnEngineFrame(header)
                                              : Event{.kind = Event::Kind::frame, .header = header, .payload = payload};
  }
  if (header.type != mLocal.connectType || isReply != (mState == State::reply)) {
    return Fail(eNetworkError_MalformedData);
  }
  if (mState == State::connect) {
    mConnectSerial = header.serial;
    mState = State::deciding;
    return Event{.kind = Event::Kind::connectRequested, .header = header, .payload = payload};
  }
  if (header.serial != mConnectSerial) {
    return Fail(eNetworkError_MalformedData);
  }
  if (header.Has(kTCPE_Flag_ErrorReply)) {
    // A refusal without a reason is one all the same.
    return Refused(header.error != eTCPE_CommErr_None ? static_cast<TCPE_CommErr>(header.error)
                                                      : eTCPE_CommErr_NotConnected);
  }
  Open(mLastReceived);
  return Event{.kind = Event::Kind::accepted, .header = header};
}

std::optional<TCPE_Session::Event> TCPE_Session::OnEngineFrame(const TCPE_FrameHeader& header) {
  if (header.Has(kTCPE_Flag_Reply | kTCPE_Flag_ErrorReply)) {
    if (mProbeDeadline != 0) {
      mProbeDeadline = 0;
      return Event{.kind = Event::Kind::probeAnswered};
    }
  } else if (header.Has(kTCPE_Flag_ReplyWanted)) {
    SendFrame(kTCPE_HeartbeatType, kTCPE_Flag_Reply | kTCPE_Flag_ErrorReply, header.serial,
              eTCPE_CommErr_UnknownCommand);
  }
  return std::nullopt;
}

TCPE_Session::Event TCPE_Session::Fail(ETCPE_NetworkError error) {
  mState = State::ended;
  return {.kind = Event::Kind::failed, .networkError = error};
}

TCPE_Session::Event TCPE_Session::Refused(TCPE_CommErr error) {
  mState = State::ended;
  return {.kind = Event::Kind::refused, .error = error};
}

void TCPE_Session::Open(TCPE_Time now) {
  mState = State::open;
  mLastReceived = now;
  NoteSent(now);
}

bool TCPE_Session::IsWellFormed(const TCPE_FrameHeader& header) const {
  return header.majorVersion == mLocal.hello.majorVersion && (header.flags & ~kTCPE_Flags_Known) == 0 &&
         !header.Has(kTCPE_Flag_Tag) && header.dataLength <= MaxPayload();
}

void TCPE_Session::SendFrame(TCPE_eCmd type, std::uint8_t flags, std::uint32_t serial, TCPE_CommErr error) {
  TCPE_FrameHeader header;
  header.majorVersion = mLocal.hello.majorVersion;
  header.minorVersion = mLocal.minorVersion;
  header.flags = flags;
  header.senderSystemType = mLocal.systemType;
  header.receiverSystemType = mPeerSystemType;
  header.type = type;
  header.serial = serial;
  header.error = error;
  const std::size_t begin = mOutput.size();
  mOutput.resize(begin + TCPE_FrameHeader::kSize);
  header.Write(mOutput.data() + begin);
  TCPE_SealFrame(std::span(mOutput).subspan(begin));
}
