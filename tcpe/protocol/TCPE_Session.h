#pragma once

#include "tcpe/protocol/TCPE_Credits.h"
#include "tcpe/protocol/TCPE_Frame.h"
#include "tcpe/protocol/TCPE_FrameTagger.h"
#include "tcpe/protocol/TCPE_Hello.h"
#include "tcpe/protocol/TCPE_Limits.h"
#include "tcpe/protocol/TCPE_SharedKeys.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

/// One connection, without its socket: takes the bytes that arrived and the present time, gives bytes to send, events,
/// and the time at which it wants to be asked again.
///
/// Both sides send a hello; with a shared secret both prove that they know it; the initiator sends its connect command;
/// the acceptor's owner accepts or refuses it; from then on frames pass. One thread at a time, but for NoteSent and
/// NoteFinished.
class TCPE_Session {
public:
  enum class Role : std::uint8_t { initiator, acceptor };

  /// This side, as every session of an engine presents it.
  struct Local {
    TCPE_Hello hello;
    std::uint8_t minorVersion = 0;
    std::uint8_t systemType = 0;
    TCPE_eCmd connectType = 0;
    TCPE_eCmd challengeType = 0;
  };

  /// What is particular to one session.
  struct Terms {
    Role role = Role::acceptor;
    std::uint32_t localAddress = 0;
    std::uint32_t peerAddress = 0;
    TCPE_Hello::Nonce nonce{};
    TCPE_SharedKeys keys{};
    /// When the handshake has to be over; 0: as long after the beginning as the limits allow.
    TCPE_Time handshakeEnds = 0;
    /// The initiator's complete connect command.
    std::vector<std::byte> connectFrame{};
  };

  struct Event {
    enum class Kind : std::uint8_t {
      challenged,       ///< acceptor: decide with ExamineProof or Refuse
      unproved,         ///< the peer does not know the secret; the session has ended
      connectRequested, ///< acceptor: decide with Accept or Refuse; header and payload are the connect command's
      accepted,         ///< initiator: the connection is open
      refused,          ///< initiator: `error` says why; the session has ended
      frame,            ///< a command or a reply of an open connection
      finished,         ///< the peer has told how many asynchronous commands it has finished, in `finished`; without a
                        ///< number: it does not tell, for something else came first
      probeAnswered,
      probeUnanswered,
      failed, ///< the session has ended with `networkError`
    };
    Kind kind;
    TCPE_FrameHeader header{};
    std::span<const std::byte> payload{}; ///< valid until the session is called again
    TCPE_CommErr error = eTCPE_CommErr_None;
    ETCPE_NetworkError networkError = eNetworkError_None;
    std::optional<std::uint32_t> finished{};
    bool isReadAlone = false;  ///< frame: it is all that came with the last bytes, and all of it came with them
    bool isUnfinished = false; ///< failed: the data is malformed because the rest of a frame did not come in time
  };

  TCPE_Session(const TCPE_Limits& limits, const Local& local, Terms terms, TCPE_Time now);

  /// Where to put the bytes that arrive; never empty while the session lives, valid until the next call of this one.
  std::span<std::byte> ReceiveSpace();
  void Received(std::size_t count, TCPE_Time now);
  /// The next thing that the bytes, or the time, brought about. Call until there is none.
  std::optional<Event> NextEvent(TCPE_Time now);
  /// When NextEvent wants to be called again though no byte arrived.
  TCPE_Time NextDeadline() const;
  /// Bytes to send, emptied by the caller.
  std::vector<std::byte>& Output() { return mOutput; }

  /// With a secret everything that is sent is tagged: until the session opens by itself; from then on, because many
  /// threads send, by its owner, what Output holds included. Null without a secret.
  TCPE_FrameTagger* Tagger() { return mTagger ? &*mTagger : nullptr; }

  /// Verdict on a challenge: answers it when its proof is right, and refuses it otherwise.
  bool ExamineProof();
  /// Verdicts on a requested connection.
  void Accept(TCPE_Time now);
  /// Ends the session before it has opened.
  void Refuse(TCPE_CommErr error);

  /// Asks an open connection for a sign of life; probeAnswered or probeUnanswered follows.
  void Probe(TCPE_Time now);
  /// Stops taking frames, of which the owner has too many; the peer's bytes are not to be read meanwhile. Its times
  /// stand still, but it is lost when none of its commands is finished for too long.
  void Pause(TCPE_Time now);
  void Resume(TCPE_Time now);
  bool IsPaused() const { return mPausedSince != 0; }

  /// Tells that an asynchronous command of the peer is finished. From any thread.
  /// @return whether the peer is to be told soon: call NextEvent then
  bool NoteFinished() { return mFinished.NoteFinished(); }
  /// The last word to a peer that is too slow.
  void SayTooSlow();

  /// Tells when the owner sent a frame of its own, which saves a heartbeat. From any thread.
  void NoteSent(TCPE_Time now) { mLastSent.store(now, std::memory_order_relaxed); }

  bool IsOpen() const { return mState == State::open; }
  /// Acceptor, before the verdict: the peer has proved the secret, or without one has sent its connect command.
  bool HasProved() const { return mPeerTagger.has_value() || mState == State::deciding; }
  std::uint64_t PeerInstance() const { return mPeerInstance; }

private:
  enum class State : std::uint8_t { hello, challenge, examining, proof, connect, deciding, reply, open, ended };

  std::optional<Event> NextTimedEvent(TCPE_Time now);
  std::optional<Event> OnHello();
  std::optional<Event> OnProof(const TCPE_FrameHeader& header, std::span<const std::byte> payload);
  std::optional<Event> OnFrame(const TCPE_FrameHeader& header, std::span<const std::byte> payload);
  std::optional<Event> OnEngineFrame(const TCPE_FrameHeader& header, std::span<const std::byte> payload);
  /// What silence, frame and probe times have brought about.
  std::optional<Event> CheckTimes(TCPE_Time now);
  void TellFinished(TCPE_Time now);
  Event Fail(ETCPE_NetworkError error);
  Event Refused(TCPE_CommErr error);
  /// A refusal without a reason is one all the same.
  Event RefusedByPeer(const TCPE_FrameHeader& header);
  Event Unproved();
  bool IsRightProof(std::span<const std::byte> proof);
  void SendProof(std::uint8_t flags);
  void BeginTagging();
  void SendConnect();
  void Open(TCPE_Time now);
  bool IsWellFormed(const TCPE_FrameHeader& header) const;
  std::size_t MaxPayload() const { return IsOpen() ? mLimits.maxPayload : mLimits.maxHandshakePayload; }
  void SendFrame(TCPE_eCmd type, std::uint8_t flags, std::uint32_t serial, TCPE_CommErr error,
                 std::span<const std::byte> payload = {});
  void Send(std::span<const std::byte> frame);
  std::span<const std::byte> Unread() const { return std::span(mBuffer).subspan(mBegin, mEnd - mBegin); }

  const TCPE_Limits& mLimits;
  const Local& mLocal;
  const Terms mTerms;
  TCPE_Hello mHello;
  /// What both sides know of the connection: hellos and addresses, the initiator's first.
  std::array<std::byte, 2 * (TCPE_Hello::kSize + sizeof(std::uint32_t))> mTranscript{};
  TCPE_AuthenticationKey::Mac mProof{}; ///< of the challenge that is being examined
  TCPE_SharedKeys::Key mKey;            ///< of this connection, once the peer has proved it
  std::optional<TCPE_FrameTagger> mTagger;
  std::optional<TCPE_FrameTagger> mPeerTagger;
  std::vector<std::byte> mBuffer;
  std::vector<std::byte> mOutput;
  std::size_t mBegin = 0;
  std::size_t mEnd = 0;
  std::size_t mReadAlone = 0; // bytes of the last read, when no others were left then
  std::uint64_t mPeerInstance = 0;
  std::atomic<TCPE_Time> mLastSent;
  TCPE_Time mLastReceived;
  TCPE_Time mHandshakeDeadline;
  TCPE_Time mFrameBegan = 0; // 0: no frame is half received
  TCPE_Time mProbeDeadline = 0;
  TCPE_FinishedCount mFinished;
  std::uint64_t mFinishedInPause = 0; ///< as it was when it changed last
  TCPE_Time mPausedSince = 0;         ///< or since the last progress; 0: it is not
  std::uint32_t mConnectSerial = 0;
  std::uint8_t mPeerSystemType = 0;
  bool mHasHeard = false; ///< a frame since it opened
  State mState = State::hello;
};
