#pragma once

#include "tcpe/protocol/TCPE_Frame.h"
#include "tcpe/protocol/TCPE_Hello.h"
#include "tcpe/protocol/TCPE_Limits.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

/// One connection, without its socket: takes the bytes that arrived and the present time, gives bytes to send, events,
/// and the time at which it wants to be asked again.
///
/// Both sides send a hello; the initiator sends its connect command; the acceptor's owner accepts or refuses it; from
/// then on frames pass. One thread at a time, but for NoteSent.
class TCPE_Session {
public:
  enum class Role : std::uint8_t { initiator, acceptor };

  /// This side, as every session of an engine presents it.
  struct Local {
    TCPE_Hello hello;
    std::uint8_t minorVersion = 0;
    std::uint8_t systemType = 0;
    TCPE_eCmd connectType = 0;
  };

  struct Event {
    enum class Kind : std::uint8_t {
      connectRequested, ///< acceptor: decide with Accept or Refuse; header and payload are the connect command's
      accepted,         ///< initiator: the connection is open
      refused,          ///< initiator: `error` says why; the session has ended
      frame,            ///< a command or a reply of an open connection
      probeAnswered,
      probeUnanswered,
      failed, ///< the session has ended with `networkError`
    };
    Kind kind;
    TCPE_FrameHeader header{};
    std::span<const std::byte> payload{}; ///< valid until the session is called again
    TCPE_CommErr error = eTCPE_CommErr_None;
    ETCPE_NetworkError networkError = eNetworkError_None;
  };

  /// `connectFrame` is the initiator's complete connect command, empty for an acceptor.
  TCPE_Session(const TCPE_Limits& limits, const Local& local, Role role, std::vector<std::byte> connectFrame,
               TCPE_Time now);

  /// Where to put the bytes that arrive; never empty while the session lives, valid until the next call of this one.
  std::span<std::byte> ReceiveSpace();
  void Received(std::size_t count, TCPE_Time now);
  /// The next thing that the bytes, or the time, brought about. Call until there is none.
  std::optional<Event> NextEvent(TCPE_Time now);
  /// When NextEvent wants to be called again though no byte arrived.
  TCPE_Time NextDeadline() const;
  /// Bytes to send, emptied by the caller.
  std::vector<std::byte>& Output() { return mOutput; }

  /// Verdicts on a requested connection.
  void Accept(TCPE_Time now);
  void Refuse(TCPE_CommErr error);

  /// Asks an open connection for a sign of life; probeAnswered or probeUnanswered follows.
  void Probe(TCPE_Time now);
  /// Tells when the owner sent a frame of its own, which saves a heartbeat. From any thread.
  void NoteSent(TCPE_Time now) { mLastSent.store(now, std::memory_order_relaxed); }

  Role GetRole() const { return mRole; }
  bool IsOpen() const { return mState == State::open; }
  std::uint64_t PeerInstance() const { return mPeerInstance; }

private:
  enum class State : std::uint8_t { hello, connect, deciding, reply, open, ended };

  std::optional<Event> NextTimedEvent(TCPE_Time now);
  std::optional<Event> OnHello();
  std::optional<Event> OnFrame(const TCPE_FrameHeader& header, std::span<const std::byte> payload);
  std::optional<Event> OnEngineFrame(const TCPE_FrameHeader& header);
  Event Fail(ETCPE_NetworkError error);
  Event Refused(TCPE_CommErr error);
  void Open(TCPE_Time now);
  bool IsWellFormed(const TCPE_FrameHeader& header) const;
  std::size_t MaxPayload() const { return IsOpen() ? mLimits.maxPayload : mLimits.maxHandshakePayload; }
  void SendFrame(TCPE_eCmd type, std::uint8_t flags, std::uint32_t serial, TCPE_CommErr error);
  std::span<const std::byte> Unread() const { return std::span(mBuffer).subspan(mBegin, mEnd - mBegin); }

  const TCPE_Limits& mLimits;
  const Local& mLocal;
  std::vector<std::byte> mConnectFrame;
  std::vector<std::byte> mBuffer;
  std::vector<std::byte> mOutput;
  std::size_t mBegin = 0;
  std::size_t mEnd = 0;
  std::uint64_t mPeerInstance = 0;
  std::atomic<TCPE_Time> mLastSent;
  TCPE_Time mLastReceived;
  TCPE_Time mHandshakeDeadline;
  TCPE_Time mFrameBegan = 0; // 0: no frame is half received
  TCPE_Time mProbeDeadline = 0;
  std::uint32_t mConnectSerial = 0;
  std::uint8_t mPeerSystemType = 0;
  Role mRole;
  State mState = State::hello;
};
