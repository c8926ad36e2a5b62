#pragma once

#include "tcpe/net/TCPE_Arrival.h"
#include "tcpe/net/TCPE_ByteTap.h"
#include "tcpe/net/TCPE_PeerTraffic.h"
#include "tcpe/net/TCPE_PendingCalls.h"
#include "tcpe/protocol/TCPE_Credits.h"
#include "tcpe/protocol/TCPE_Endpoint.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>

/// The socket of one connection, and what is queued for it.
///
/// Any thread sends; everything else happens on the network thread.
class TCPE_Connection : public std::enable_shared_from_this<TCPE_Connection> {
public:
  /// What the network thread is to be told by a sender.
  class Owner {
  public:
    virtual void OnTransportFailed(TCPE_Endpoint::Id id, ETCPE_NetworkError error) = 0;
    /// It is time to tell the peer what is finished.
    virtual void OnTellingDue(TCPE_Endpoint::Id id) = 0;
    /// A paused connection is to be read again.
    virtual void OnReadingDue(const std::shared_ptr<TCPE_Connection>& connection) = 0;

  protected:
    ~Owner() = default;
  };

  /// A frame that needs no credit.
  enum class Kind : std::uint8_t { query, reply, farewell };
  /// An asynchronous command whose sender cannot wait, and that finds no credit or no room, is kept.
  enum class Keeping : std::uint8_t {
    no,
    ofHandler, ///< within a bound of its own, beyond which the handler waits all the same
    ofLibrary, ///< within a bound beyond which the peer is too slow
  };
  /// The asynchronous commands on their way to the peer.
  struct Flow {
    std::size_t out = 0;     ///< sent, and not finished as far as the peer has told
    std::size_t kept = 0;    ///< for the time when the peer has finished others
    std::size_t waiting = 0; ///< senders that wait for that
  };

  /// A sender that waits for its turn; on its stack.
  struct Waiter {
    std::span<const std::byte> frame;
    bool isHandler = false; ///< whose command may be kept
    TCPE_CommErr error = eTCPE_CommErr_None;
    bool hasEnded = false;
    std::condition_variable ended{};
  };

  TCPE_Connection(asio::io_context& context, asio::ip::tcp::socket socket, Owner& owner, const TCPE_Limits& limits,
                  TCPE_ByteTap& tap, TCPE_Endpoint::Id id, std::uint32_t address);

  TCPE_Endpoint::Id GetId() const { return mId; }
  std::uint32_t GetAddress() const { return mAddress; }
  /// Null once it is closed. On the network thread.
  asio::ip::tcp::socket* Socket() { return mSocket ? &*mSocket : nullptr; }
  TCPE_PendingCalls& Calls() { return mCalls; }
  /// Tells that the transport is connected. On the network thread.
  void TransportOpened(bool openedByPeer);
  /// Where what passes is counted from admission on; what has passed before is added. On the network thread, before
  /// anybody else knows the connection.
  void CountIn(std::shared_ptr<TCPE_PeerTraffic> traffic);
  /// Of an admitted connection.
  TCPE_PeerTraffic& Traffic() { return *mTraffic; }

  /// Sends a frame after what is queued already, and at once: somebody waits for it. Never blocks. A peer that does not
  /// even take its replies is too slow.
  TCPE_CommErr Send(std::span<const std::byte> frame, Kind kind);
  /// Sends an asynchronous command, or keeps it. Never blocks. Nothing when it would have to wait.
  std::optional<TCPE_CommErr> TrySendCommand(std::span<const std::byte> frame, Keeping keeping,
                                             std::size_t* keptByThisJob = nullptr);
  /// Has an asynchronous command sent when it is its turn. False when its sender need not wait: it has been sent, or
  /// has failed. Who gets true must call Await.
  bool LineUp(Waiter& waiter);
  /// Until the command has been sent or kept, or the connection ends.
  void Await(Waiter& waiter);
  Flow GetFlow() const;
  /// Somebody waits for a reply, or to send.
  bool HasWaitingSenders() const;

  /// Sends what the session itself has to say.
  void SendOfSession(std::span<const std::byte> bytes);
  /// The peer tells how many asynchronous commands it has finished. On the network thread.
  void Told(std::uint32_t finished);
  /// The peer says something else. On the network thread.
  void ToldNothing();
  /// An asynchronous command of the peer is finished. From any thread, while the engine stands.
  void NoteFinished();
  /// The peer's commands are not read for the time being. Set on the network thread; whoever clears it resumes reading.
  void SetPaused() { mIsPaused = true; }
  bool IsPaused() const { return mIsPaused; }
  bool ClearPaused() { return mIsPaused && mIsPaused.exchange(false); }
  /// A read is under way. On the network thread.
  bool isReading = false;

  /// Nobody waits any more, and nobody will. What is kept goes out first when the connection ends in good order.
  void EndWaiting(TCPE_CommErr error, bool inGoodOrder);

  /// From opening on, sent frames save heartbeats. What others send waits until the session has said the first word: a
  /// peer takes nothing before its answer, and has to know that it is told what is finished. Frames that have to be
  /// tagged are, in the order in which they leave.
  void Open(std::shared_ptr<TCPE_Session> session);
  /// Closes when everything queued has been written, at the latest after the linger time.
  void CloseWhenSent();
  void CloseNow();

  /// Tells of bytes that arrived. On the network thread.
  void NoteReceived(std::span<const std::byte> bytes, const TCPE_Arrival& arrival);
  /// Of the bytes that arrived last. On the network thread.
  const TCPE_Arrival& LastArrival() const { return mLastArrival; }
  TCPE_Time LastReceived() const { return mLastReceived.load(std::memory_order_relaxed); }
  /// Bytes that wait to be sent.
  std::size_t OutboundBytes() const;

  /// True for the first caller: it is the one to report the end.
  bool TryEnd() { return !mHasEnded.exchange(true); }
  bool HasEnded() const { return mHasEnded; }

  ETCPE_SystemType GetPeerSystemType() const { return static_cast<ETCPE_SystemType>(mPeerSystemType.load()); }
  void SetPeerSystemType(std::uint8_t type) {
    if (mPeerSystemType.load(std::memory_order_relaxed) != type) { // what stands beside it is read all the time
      mPeerSystemType = type;
    }
  }
  /// 0 until it is open.
  std::uint64_t GetPeerInstance() const { return mPeerInstance; }

private:
  enum class Urgency : std::uint8_t {
    now,  ///< write at once
    soon, ///< write at once when the connection was quiet; within a burst leave it to the network thread
  };

  std::size_t QueuedBytes() const { return mQueue.size() - mQueueBegin; }
  // All with the mutex held.
  std::size_t SizeToSend(std::span<const std::byte> frames) {
    return Tagger() != nullptr ? TCPE_FrameTagger::TaggedSize(frames) : frames.size();
  }
  /// Whether as much may be queued, written as far as it can be.
  bool HasRoom(std::size_t size, std::size_t limit);
  std::size_t CommandLimit() const { return mLimits.maxOutboundBytes - mLimits.outboundReserve; }
  bool MaySendCommand(std::span<const std::byte> frame);
  bool IsAnybodyWaiting() const { return !mKept.empty() || !mWaiters.empty(); }
  TCPE_CommErr SendCommandNow(std::span<const std::byte> frame);
  bool HasRoomToKeep(std::span<const std::byte> frame, std::size_t maxCommands) const {
    return mKept.size() < maxCommands && mKeptBytes + frame.size() <= mLimits.maxKeptBytes;
  }
  void Keep(std::span<const std::byte> frame);
  void KeepForHandlers();
  /// Sends what waits, as far as there are credit and room.
  void SendWaiting();
  /// Has the network thread see to it that nobody waits in vain.
  void WatchProgress();
  void CheckProgress();
  TCPE_CommErr SendOrHoldBack(std::span<const std::byte> frame, Urgency urgency, std::size_t limit);
  TCPE_CommErr SendInTurn(std::span<const std::byte> bytes, Urgency urgency, std::size_t limit);
  TCPE_FrameTagger* Tagger() { return mSession ? mSession->Tagger() : nullptr; }
  /// False when the transport has failed.
  bool Write(std::span<const std::byte>& bytes);
  bool WriteQueue();
  /// False when the transport has failed.
  bool WriteNow();
  void FlushLater();
  void Flush();
  /// The transport takes nothing any more.
  void EndWriting();
  void ReportTooSlow();
  void Tell(const TCPE_ByteTap::Turn& turn, TCPE_TappedBytes::Event event, std::span<const std::byte> bytes);
  void CloseSocket();

  const TCPE_Limits& mLimits;
  Owner& mOwner;
  asio::io_context& mContext;
  std::optional<asio::ip::tcp::socket> mSocket;
  const TCPE_Endpoint::Id mId;
  const std::uint32_t mAddress;
  TCPE_PendingCalls mCalls;
  std::atomic<bool> mHasEnded = false;
  std::atomic<bool> mIsPaused = false;
  std::atomic<std::uint8_t> mPeerSystemType = 0;
  std::atomic<std::uint64_t> mPeerInstance = 0;
  TCPE_Arrival mLastArrival;
  std::atomic<TCPE_Time> mLastReceived = 0; ///< the same, for any thread
  std::uint64_t mEarlyReceived = 0;         ///< bytes before there was anything to count in
  std::uint64_t mEarlySent = 0;
  std::shared_ptr<TCPE_PeerTraffic> mTraffic;
  TCPE_ByteTap& mTap;
  TCPE_TappedBytes mEnds; ///< of the transport, as a tap is told; no ports while it is not connected

  mutable std::mutex mMutex; // guards writing and closing the socket, and what follows
  std::vector<std::byte> mQueue;
  std::size_t mQueueBegin = 0;
  std::vector<std::byte> mHeldBack; ///< until the session has said the first word
  std::size_t mHeldBackSize = 0;    ///< with the tags that they will get
  std::vector<std::byte> mTagged;   ///< frames that leave now
  bool mFirstWordIsDue = false;
  bool mHasHeard = false; ///< from the peer since it opened; the network thread's alone
  TCPE_Credits mCredits;
  std::deque<std::vector<std::byte>> mKept;
  std::size_t mKeptBytes = 0;
  std::deque<Waiter*> mWaiters;
  TCPE_CommErr mWaitingEnded = eTCPE_CommErr_None; ///< why nobody waits any more
  bool mIsWatching = false;
  bool mIsTooSlow = false; ///< which has been reported
  std::shared_ptr<TCPE_Session> mSession;
  TCPE_Time mLastWrite = 0;
  bool mFlushIsDue = false;
  bool mClosesWhenSent = false;
  bool mHasFailed = false;
};
