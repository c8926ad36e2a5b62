#pragma once

#include "tcpe/protocol/TCPE_AuthenticationFailures.h"
#include "tcpe/protocol/TCPE_Rate.h"
#include "tcpe/protocol/TCPE_Session.h"
#include "tcpe/protocol/TCPE_SharedKeys.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <vector>

/// All connections of one engine, without sockets, threads or a clock: who may connect, which of two connections of one
/// peer survives, when one is lost.
///
/// The owner reports what its transports do and the present time, and carries out the events. At most one connection an
/// address is open. One thread at a time, but for Session::NoteSent and what is said to be for any thread.
class TCPE_Endpoint {
public:
  /// Tells connections apart; never 0, and never given again: 32 bits would come round within days of strangers who
  /// connect and go.
  using Id = std::uint64_t;

  struct Config {
    TCPE_Limits limits;
    TCPE_Session::Local local;
    std::uint32_t localAddress = 0;
    TCPE_eCmd disconnectType = 0;
    std::size_t maxConnections = 0;
    /// The host's word on an address.
    std::function<bool(std::uint32_t address)> allowConnect;
    /// Whether the owner can take a connect command, and with it the peer; why not otherwise. Empty: it always can.
    std::function<TCPE_CommErr(std::uint32_t address, const TCPE_FrameHeader& header,
                               std::span<const std::byte> payload)>
        examineConnect{};
    TCPE_SharedKeys keys{};
    /// A fresh nonce for each connection. Empty: zeros.
    std::function<TCPE_Hello::Nonce()> makeNonce{};
    /// Draws who gives way, and whose proof is examined. Empty: zeros.
    std::function<std::uint64_t()> random{};
    /// Makes the connect command for an address, a complete frame.
    std::function<std::vector<std::byte>(std::uint32_t address)> makeConnectFrame;
  };

  struct Event {
    enum class Kind : std::uint8_t {
      opened,       ///< from now on frames pass; header and payload are the connect command's when the peer opened it
      frame,        ///< a command or a reply of the peer
      finished,     ///< the peer has told how many asynchronous commands it has finished; as that of the session
      disconnected, ///< the peer ended the connection with the disconnect command in header and payload
      lost,         ///< an open connection ended with `networkError`
      unproved, ///< a system that would connect from the address did not prove the secret, or requires one that this
                ///< side does not have; once while the address is marked, and not often for all addresses together
      flooded,  ///< strangers, the address among them, keep the places for newcomers taken; not often
      connectEnded, ///< no attempt to connect to the address is left; `error` says why, 0 when it is connected
      send,         ///< send `payload`
      close,        ///< close the transport; what was given to send goes out first
      open,         ///< open another transport to the address: the attempt goes on with it, under this identifier
    };
    Kind kind;
    Id id = 0;
    std::uint32_t address = 0;
    TCPE_FrameHeader header{};
    std::span<const std::byte> payload{}; ///< valid until the endpoint is called again
    TCPE_CommErr error = eTCPE_CommErr_None;
    ETCPE_NetworkError networkError = eNetworkError_None;
    std::shared_ptr<TCPE_Session> session{}; ///< with opened
    bool openedByPeer = false;
    std::optional<std::uint32_t> finished{};
    bool isReadAlone = false; ///< as that of the session
  };

  /// What was turned away, by reason.
  struct Counts {
    std::atomic<std::uint64_t> refusals = 0;   ///< connections, and strangers that sent no valid handshake
    std::atomic<std::uint64_t> unproved = 0;   ///< systems that did not prove the secret
    std::atomic<std::uint64_t> turnedAway = 0; ///< ... at addresses that were marked for that already
    std::atomic<std::uint64_t> untold = 0;     ///< unproved events that would have been too many
    std::atomic<std::uint64_t> wrongTags = 0;  ///< connections ended by a frame that is not the peer's next one
    std::atomic<std::uint64_t> malformed = 0;  ///< connections ended by what is no frame, or one out of place
    std::atomic<std::uint64_t> unfinished = 0; ///< connections ended by a frame that was not complete in time
  };

  static constexpr TCPE_Time kNever = std::numeric_limits<TCPE_Time>::max();

  explicit TCPE_Endpoint(Config config) : mConfig(std::move(config)), mFailures(mConfig.limits) {}

  /// Begins an attempt: the owner opens a transport for the returned identifier. Nothing when one is under way already,
  /// or when a connectEnded event answers at once.
  std::optional<Id> BeginConnect(std::uint32_t address, TCPE_Time now);
  void TransportConnected(Id id, TCPE_Time now);
  /// A transport that a peer opened. When all places for newcomers are taken, another one gives way to it.
  Id TransportAccepted(std::uint32_t address, TCPE_Time now);
  /// The transport failed or was closed at the other end.
  void TransportEnded(Id id, TCPE_Time now);
  /// Where to put arriving bytes; empty for a connection that is gone. The space is the session's.
  std::span<std::byte> ReceiveSpace(Id id);
  void Received(Id id, std::size_t count, TCPE_Time now);

  /// While a connection is paused it gives no more frames, and its bytes are not to be read. Of an open one.
  void Pause(Id id, TCPE_Time now);
  void Resume(Id id, TCPE_Time now);
  bool IsPaused(Id id);
  /// Looks whether a connection has something to say; call when its session's NoteFinished asks for it.
  void Look(Id id);

  /// Ends an open connection on the host's wish or because of an error that the owner found; no lost event for 'none'.
  void End(Id id, ETCPE_NetworkError error, TCPE_Time now);

  /// The role that this system's own frames tell from now on.
  void SetLocalSystemType(std::uint8_t type) { mConfig.local.systemType = type; }

  /// The address that this system has from now on. What began at another one ends: attempts, those among them that only
  /// wait for the peer's own, newcomers, and connections, which are lost.
  void MoveTo(std::uint32_t address, TCPE_Time now);

  /// Looks at the time; call at the deadline.
  void Tick(TCPE_Time now);
  /// The next thing to carry out. Call after each call above until there is none.
  std::optional<Event> NextEvent(TCPE_Time now);
  /// The deadline of all connections, or of one; kNever without one.
  TCPE_Time NextDeadline() const;
  TCPE_Time DeadlineOf(Id id) const;

  std::size_t OpenConnections() const { return mOpen.size(); }
  std::size_t HalfOpenConnections() const;
  /// For any thread.
  const Counts& GetCounts() const { return mCounts; }
  /// Whether a system at the address failed to prove the secret a short while ago; without a secret nobody
  /// does. From any thread.
  bool HasAuthenticationFailed(std::uint32_t address, TCPE_Time now) const {
    return mConfig.keys && mFailures.IsMarked(address, now);
  }

private:
  struct Connection {
    std::uint32_t address = 0;
    std::shared_ptr<TCPE_Session> session{}; ///< none while the transport connects
    TCPE_Time deadline = 0;                  ///< of the transport connection, or of a yielded attempt
    TCPE_Time handshakeEnds = 0;             ///< of an attempt, whatever transports it takes; 0: it has had none
    bool reopens = false;                    ///< at the deadline another transport is opened
    bool openedByPeer = false;
    bool yielded = false;        ///< our attempt was refused because the peer's own survives; it waits for that one
    bool waitsForProbe = false;  ///< a newcomer whose predecessor is being probed
    TCPE_Time proofDue = kNever; ///< from when on its proof may be examined; kNever: none waits
    TCPE_FrameHeader connectHeader{}; ///< of the connect command, or of its reply
    std::vector<std::byte> connectPayload{};
  };
  using Connections = std::map<Id, Connection>;

  static TCPE_Time DeadlineOf(const Connection& connection);
  static bool IsOpen(const Connection& connection) { return connection.session && connection.session->IsOpen(); }
  static bool IsHalfOpen(const Connection& connection) { return connection.openedByPeer && !IsOpen(connection); }
  Connection* Find(Id id);
  void MakeRoom(std::uint32_t address, TCPE_Time now);
  bool Reopen(Id id, TCPE_Time now);
  void NoteFlood(std::uint32_t address, bool isOfAll, TCPE_Time now);
  Id AttemptOf(std::uint32_t address) const;
  bool IsAttemptUnderWay(std::uint32_t address, std::uint64_t instance) const;
  std::vector<Id> WaitingFor(std::uint32_t address) const;
  void AddSession(Id id, TCPE_Session::Role role, std::vector<std::byte> connectFrame, TCPE_Time now);
  std::optional<Event> Advance(Id id, TCPE_Time now);
  void CheckDeadline(Id id, TCPE_Time now);
  void ExamineProofs(std::uint32_t address, TCPE_Time now);
  std::size_t Draw(std::size_t count) const { return mConfig.random ? mConfig.random() % count : 0; }
  void Count(const TCPE_Session::Event& failure);
  void OnUnproved(Id id, TCPE_Time now);
  /// Marks an address, and tells of it unless it is marked already.
  void TellOfFailure(std::uint32_t address, TCPE_Time now);
  void Decide(Id id, TCPE_Time now);
  void DecideWaiting(std::uint32_t address, TCPE_Time now);
  void Refuse(Id id, TCPE_CommErr error);
  void Open(Id id, bool openedByPeer);
  void AttemptFailed(Id id, TCPE_CommErr error, TCPE_Time now);
  void Lose(Id id, ETCPE_NetworkError error, TCPE_Time now);
  void Close(Id id);
  void PushOutput(Id id);
  void Push(Event event, std::vector<std::byte> bytes = {});

  struct Queued {
    Event event;
    std::vector<std::byte> bytes;
  };

  Config mConfig;
  Connections mConnections;
  std::map<std::uint32_t, Id> mOpen;
  std::deque<Queued> mEvents;
  std::deque<Id> mToAdvance;
  std::vector<std::byte> mCurrentBytes;
  Id mLastId = 0;
  TCPE_AuthenticationFailures mFailures;
  TCPE_Rate mFailureReports;
  TCPE_Time mFloodSince = 0;
  TCPE_Time mFloodUntil = 0;
  TCPE_Time mTellFloodsFrom = 0;
  Counts mCounts;
};
