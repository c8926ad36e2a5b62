#include "tcpe/protocol/TCPE_Session.h"

#include "tcpe/protocol/TCPE_Bytes.h"
#include "tcpe/protocol/TCPE_Numbering.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace {

// One for each role: nobody can return a proof or a frame to the one who made it.
std::string_view ProofLabel(TCPE_Session::Role role) {
  return role == TCPE_Session::Role::initiator ? "initiator proof" : "acceptor proof";
}
std::string_view FramesLabel(TCPE_Session::Role role) {
  return role == TCPE_Session::Role::initiator ? "initiator frames" : "acceptor frames";
}
TCPE_Session::Role Other(TCPE_Session::Role role) {
  return role == TCPE_Session::Role::initiator ? TCPE_Session::Role::acceptor : TCPE_Session::Role::initiator;
}

} // namespace

TCPE_Session::TCPE_Session(const TCPE_Limits& limits, const Local& local, Terms terms, TCPE_Time now)
    : mLimits(limits), mLocal(local), mTerms(std::move(terms)), mHello(local.hello), mOutput(TCPE_Hello::kSize),
      mLastSent(now), mLastReceived(now),
      mHandshakeDeadline(mTerms.handshakeEnds != 0 ? mTerms.handshakeEnds : now + limits.handshake), mFinished(limits) {
  mHello.nonce = mTerms.nonce;
  mHello.authenticationRequired = static_cast<bool>(mTerms.keys);
  mHello.Write(mOutput.data());
}

std::span<std::byte> TCPE_Session::ReceiveSpace() {
  std::copy(mBuffer.begin() + static_cast<std::ptrdiff_t>(mBegin), mBuffer.begin() + static_cast<std::ptrdiff_t>(mEnd),
            mBuffer.begin());
  mEnd -= mBegin;
  mBegin = 0;
  // Here and not when the connection opens: bytes may be on their way into the space given out before.
  mBuffer.resize(std::max(mBuffer.size(), TCPE_FrameHeader::kSize + MaxPayload() + kTCPE_TagSize));
  return std::span(mBuffer).subspan(mEnd);
}

void TCPE_Session::Received(std::size_t count, TCPE_Time now) {
  mReadAlone = Unread().empty() ? count : 0;
  mEnd += count;
  mLastReceived = now;
}

std::optional<TCPE_Session::Event> TCPE_Session::NextEvent(TCPE_Time now) {
  if ((mState == State::examining || mState == State::deciding) && !Unread().empty()) {
    return Fail(eNetworkError_MalformedData); // nobody speaks before a verdict
  }
  while (mState != State::ended && mState != State::examining && mState != State::deciding && !IsPaused()) {
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
      if (mPeerTagger && !header.Has(kTCPE_Flag_Tag)) {
        return Fail(eNetworkError_Authentication);
      }
      const std::size_t untaggedSize = TCPE_FrameHeader::kSize + header.dataLength;
      const std::size_t size = untaggedSize + (mPeerTagger ? kTCPE_TagSize : 0);
      if (unread.size() < size) {
        break;
      }
      if (TCPE_FrameChecksum(unread.first(untaggedSize)) != header.checksum) {
        return Fail(eNetworkError_MalformedData);
      }
      if (mPeerTagger && !mPeerTagger->TakeNext(unread.first(size))) {
        return Fail(eNetworkError_Authentication);
      }
      mBegin += size;
      mFrameBegan = 0;
      event = OnFrame(header, unread.subspan(TCPE_FrameHeader::kSize, header.dataLength));
      if (event) {
        event->isReadAlone = size == mReadAlone;
      }
    }
    if (event) {
      return event;
    }
  }
  if (mBegin == mEnd || mState == State::deciding || IsPaused()) {
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
  if (std::optional<Event> event = CheckTimes(now)) {
    return event;
  }
  const bool isHeartbeatDue =
      now >= mLastSent.load(std::memory_order_relaxed) + mLimits.heartbeat - mLimits.heartbeatEarly;
  const TCPE_Time tellingIsDue = mFinished.Deadline();
  if (now >= tellingIsDue || (isHeartbeatDue && tellingIsDue != TCPE_Credits::kNever)) {
    TellFinished(now);
  } else if (isHeartbeatDue) {
    SendFrame(kTCPE_HeartbeatType, 0, 0, eTCPE_CommErr_None);
    NoteSent(now);
  }
  return std::nullopt;
}

std::optional<TCPE_Session::Event> TCPE_Session::CheckTimes(TCPE_Time now) {
  if (IsPaused()) {
    if (const std::uint64_t finished = mFinished.Finished(); finished != mFinishedInPause) {
      mFinishedInPause = finished;
      mPausedSince = now;
    }
    if (now < mPausedSince + mLimits.tooSlow) {
      return std::nullopt;
    }
    SayTooSlow();
    return Fail(eNetworkError_PeerTooSlow);
  }
  if (now >= mLastReceived + mLimits.silence) {
    return Fail(eNetworkError_ConnectionLost);
  }
  if (mFrameBegan != 0 && now >= mFrameBegan + mLimits.frame) {
    Event event = Fail(eNetworkError_MalformedData);
    event.isUnfinished = true;
    return event;
  }
  if (mProbeDeadline != 0 && now >= mProbeDeadline) {
    mProbeDeadline = 0;
    return Event{.kind = Event::Kind::probeUnanswered};
  }
  return std::nullopt;
}

TCPE_Time TCPE_Session::NextDeadline() const {
  if (!IsOpen()) {
    return mHandshakeDeadline;
  }
  TCPE_Time deadline = std::min(mFinished.Deadline(), mLastSent.load(std::memory_order_relaxed) + mLimits.heartbeat);
  if (IsPaused()) {
    return std::min(deadline, mPausedSince + mLimits.tooSlow);
  }
  deadline = std::min(deadline, mLastReceived + mLimits.silence);
  if (mFrameBegan != 0) {
    deadline = std::min(deadline, mFrameBegan + mLimits.frame);
  }
  return mProbeDeadline != 0 ? std::min(deadline, mProbeDeadline) : deadline;
}

bool TCPE_Session::ExamineProof() {
  if (!IsRightProof(mProof)) {
    Refuse(eTCPE_CommErr_Authentication);
    return false;
  }
  SendProof(kTCPE_Flag_Reply);
  BeginTagging();
  mState = State::connect;
  return true;
}

void TCPE_Session::Accept(TCPE_Time now) {
  Open(now);
  SendFrame(mLocal.connectType, kTCPE_Flag_Reply, mConnectSerial, eTCPE_CommErr_None);
  TellFinished(now); // none yet; but the peer learns in time that it is told
}

void TCPE_Session::Refuse(TCPE_CommErr error) {
  const TCPE_eCmd type = mState == State::deciding ? mLocal.connectType : mLocal.challengeType;
  SendFrame(type, kTCPE_Flag_Reply | kTCPE_Flag_ErrorReply, mConnectSerial, error);
  mState = State::ended;
}

void TCPE_Session::Probe(TCPE_Time now) {
  if (IsOpen() && mProbeDeadline == 0) {
    SendFrame(kTCPE_HeartbeatType, kTCPE_Flag_ReplyWanted, 0, eTCPE_CommErr_None);
    mProbeDeadline = now + mLimits.probe;
  }
}

void TCPE_Session::Pause(TCPE_Time now) {
  mPausedSince = now;
  mFinishedInPause = mFinished.Finished();
}

void TCPE_Session::Resume(TCPE_Time now) {
  mPausedSince = 0;
  mLastReceived = now;
  if (mProbeDeadline != 0) {
    mProbeDeadline = now + mLimits.probe;
  }
}

void TCPE_Session::TellFinished(TCPE_Time now) {
  std::array<std::byte, sizeof(std::uint32_t)> payload{};
  TCPE_ByteWriter(payload.data()).U32(mFinished.Tell(now));
  SendFrame(kTCPE_HeartbeatType, 0, 0, eTCPE_CommErr_None, payload);
  NoteSent(now);
}

void TCPE_Session::SayTooSlow() { SendFrame(kTCPE_HeartbeatType, kTCPE_Flag_ErrorReply, 0, eTCPE_CommErr_QueueFull); }

std::optional<TCPE_Session::Event> TCPE_Session::OnHello() {
  const auto bytes = Unread().first<TCPE_Hello::kSize>();
  const std::optional<TCPE_Hello> hello = TCPE_Hello::Read(bytes);
  if (!hello || hello->instance == mHello.instance) {
    return Fail(eNetworkError_MalformedData);
  }
  const bool isInitiator = mTerms.role == Role::initiator;
  mHello.Write(mTranscript.data() + (isInitiator ? 0 : TCPE_Hello::kSize));
  std::copy(bytes.begin(), bytes.end(), mTranscript.data() + (isInitiator ? TCPE_Hello::kSize : 0));
  TCPE_ByteWriter addresses(mTranscript.data() + 2 * TCPE_Hello::kSize);
  addresses.U32(isInitiator ? mTerms.localAddress : mTerms.peerAddress);
  addresses.U32(isInitiator ? mTerms.peerAddress : mTerms.localAddress);
  mBegin += TCPE_Hello::kSize;
  mPeerInstance = hello->instance;
  // Each side sees the other's hello, so each knows by itself when the two cannot be linked.
  if (hello->majorVersion != mHello.majorVersion) {
    return Refused(eTCPE_CommErr_OtherNumbering);
  }
  if (hello->authenticationRequired != mHello.authenticationRequired) {
    return mTerms.keys ? Unproved() : Refused(eTCPE_CommErr_Authentication);
  }
  if (!isInitiator) {
    mState = mTerms.keys ? State::challenge : State::connect;
  } else if (mTerms.keys) {
    SendProof(kTCPE_Flag_ReplyWanted);
    mState = State::proof;
  } else {
    SendConnect();
  }
  return std::nullopt;
}

std::optional<TCPE_Session::Event> TCPE_Session::OnProof(const TCPE_FrameHeader& header,
                                                         std::span<const std::byte> payload) {
  const bool isReply = header.Has(kTCPE_Flag_Reply | kTCPE_Flag_ErrorReply);
  if (header.type != mLocal.challengeType || isReply != (mState == State::proof)) {
    return Fail(eNetworkError_MalformedData);
  }
  if (header.Has(kTCPE_Flag_ErrorReply) && header.error == eTCPE_CommErr_Authentication) {
    return Refused(eTCPE_CommErr_Authentication);
  }
  // Whatever else a refusal says may be forged: a peer that knows the secret says it with a tag.
  if (header.Has(kTCPE_Flag_ErrorReply) || payload.size() != mProof.size()) {
    return Fail(eNetworkError_MalformedData);
  }
  if (mState == State::challenge) {
    std::copy(payload.begin(), payload.end(), mProof.begin());
    mState = State::examining;
    return Event{.kind = Event::Kind::challenged};
  }
  if (!IsRightProof(payload)) {
    return Unproved();
  }
  BeginTagging();
  SendConnect();
  return std::nullopt;
}

bool TCPE_Session::IsRightProof(std::span<const std::byte> proof) {
  // The acceptor takes up the key that the initiator proves.
  const TCPE_SharedKeys keys = mTerms.role == Role::acceptor ? mTerms.keys : TCPE_SharedKeys{mTerms.keys.proved};
  mKey = keys.Find(ProofLabel(Other(mTerms.role)), {mTranscript}, proof);
  return mKey != nullptr;
}

void TCPE_Session::SendProof(std::uint8_t flags) {
  SendFrame(mLocal.challengeType, flags, 0, eTCPE_CommErr_None,
            (mKey ? mKey : mTerms.keys.proved)->MakeMac(ProofLabel(mTerms.role), {mTranscript}));
}

void TCPE_Session::BeginTagging() {
  mTagger.emplace(mKey->Derive(FramesLabel(mTerms.role), {mTranscript}));
  mPeerTagger.emplace(mKey->Derive(FramesLabel(Other(mTerms.role)), {mTranscript}));
}

void TCPE_Session::SendConnect() {
  mConnectSerial = TCPE_FrameHeader::Read(mTerms.connectFrame.data()).serial;
  Send(mTerms.connectFrame);
  mState = State::reply;
}

std::optional<TCPE_Session::Event> TCPE_Session::OnFrame(const TCPE_FrameHeader& header,
                                                         std::span<const std::byte> payload) {
  const bool isReply = header.Has(kTCPE_Flag_Reply | kTCPE_Flag_ErrorReply);
  mPeerSystemType = header.senderSystemType;
  if (mState == State::challenge || mState == State::proof) {
    return OnProof(header, payload);
  }
  if (mState == State::open) {
    if (header.type == mLocal.connectType && !isReply) {
      return Fail(eNetworkError_MalformedData); // a peer introduces itself once
    }
    if (header.type == kTCPE_HeartbeatType) {
      return OnEngineFrame(header, payload);
    }
    if (header.IsAsynchronous()) {
      mFinished.NoteArrived();
    }
    return Event{.kind = Event::Kind::frame, .header = header, .payload = payload};
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
    return RefusedByPeer(header);
  }
  Open(mLastReceived);
  return Event{.kind = Event::Kind::accepted, .header = header};
}

std::optional<TCPE_Session::Event> TCPE_Session::OnEngineFrame(const TCPE_FrameHeader& header,
                                                               std::span<const std::byte> payload) {
  if (header.Has(kTCPE_Flag_ErrorReply) && header.error == eTCPE_CommErr_QueueFull) {
    return Fail(eNetworkError_PeerTooSlow);
  }
  if (header.Has(kTCPE_Flag_Reply | kTCPE_Flag_ErrorReply)) {
    if (mProbeDeadline != 0) {
      mProbeDeadline = 0;
      return Event{.kind = Event::Kind::probeAnswered};
    }
  } else if (header.Has(kTCPE_Flag_ReplyWanted)) {
    SendFrame(kTCPE_HeartbeatType, kTCPE_Flag_Reply | kTCPE_Flag_ErrorReply, header.serial,
              eTCPE_CommErr_UnknownCommand);
  } else if (payload.size() == sizeof(std::uint32_t)) {
    mHasHeard = true;
    return Event{.kind = Event::Kind::finished, .finished = TCPE_ByteReader(payload.data()).U32()};
  }
  if (!std::exchange(mHasHeard, true)) {
    return Event{.kind = Event::Kind::finished};
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

TCPE_Session::Event TCPE_Session::RefusedByPeer(const TCPE_FrameHeader& header) {
  return Refused(header.error != eTCPE_CommErr_None ? static_cast<TCPE_CommErr>(header.error)
                                                    : eTCPE_CommErr_NotConnected);
}

TCPE_Session::Event TCPE_Session::Unproved() {
  mState = State::ended;
  return {.kind = Event::Kind::unproved};
}

void TCPE_Session::Open(TCPE_Time now) {
  mState = State::open;
  mLastReceived = now;
  NoteSent(now);
}

bool TCPE_Session::IsWellFormed(const TCPE_FrameHeader& header) const {
  return header.majorVersion == mHello.majorVersion && (header.flags & ~kTCPE_Flags_Known) == 0 &&
         (mPeerTagger || !header.Has(kTCPE_Flag_Tag)) && header.dataLength <= MaxPayload();
}

void TCPE_Session::SendFrame(TCPE_eCmd type, std::uint8_t flags, std::uint32_t serial, TCPE_CommErr error,
                             std::span<const std::byte> payload) {
  TCPE_FrameHeader header;
  header.majorVersion = mHello.majorVersion;
  header.minorVersion = mLocal.minorVersion;
  header.flags = flags;
  header.senderSystemType = mLocal.systemType;
  header.receiverSystemType = mPeerSystemType;
  header.type = type;
  header.serial = serial;
  header.error = error;
  std::vector<std::byte> frame(TCPE_FrameHeader::kSize);
  header.Write(frame.data());
  frame.insert(frame.end(), payload.begin(), payload.end());
  TCPE_SealFrame(frame);
  Send(frame);
}

void TCPE_Session::Send(std::span<const std::byte> frame) {
  if (mTagger && !IsOpen()) {
    mTagger->AppendTagged(frame, mOutput);
  } else {
    mOutput.insert(mOutput.end(), frame.begin(), frame.end());
  }
}
