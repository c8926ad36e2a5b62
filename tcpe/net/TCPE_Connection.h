#pragma once

#include "tcpe/net/TCPE_ByteTap.h"
#include "tcpe/net/TCPE_PeerTraffic.h"
#include "tcpe/net/TCPE_PendingCalls.h"
#include "tcpe/protocol/TCPE_Endpoint.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
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

  protected:
    ~Owner() = default;
  };

  enum class Urgency : std::uint8_t {
    now,  ///< somebody waits: write at once
    soon, ///< write at once when the connection was quiet; within a burst leave it to the network thread
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

  /// Sends a frame after what is queued already. Never blocks.
  TCPE_CommErr Send(std::span<const std::byte> frame, Urgency urgency);

  /// Sends what the session itself has to say.
  void SendOfSession(std::span<const std::byte> bytes);

  /// From opening on, sent frames save heartbeats. When the session has yet to answer the peer, what others send waits
  /// until it has: a peer takes nothing before the answer. Frames that have to be tagged are, in the order in which
  /// they leave.
  void Open(std::shared_ptr<TCPE_Session> session, bool answerIsDue);
  /// Closes when everything queued has been written, at the latest after the linger time.
  void CloseWhenSent();
  void CloseNow();

  /// Tells of bytes that arrived. On the network thread.
  void NoteReceived(std::span<const std::byte> bytes, TCPE_Time now);
  TCPE_Time LastReceived() const { return mLastReceived.load(std::memory_order_relaxed); }
  /// Bytes that wait to be sent.
  std::size_t OutboundBytes() const;

  /// True for the first caller: it is the one to report the end.
  bool TryEnd() { return !mHasEnded.exchange(true); }
  bool HasEnded() const { return mHasEnded; }

  ETCPE_SystemType GetPeerSystemType() const { return static_cast<ETCPE_SystemType>(mPeerSystemType.load()); }
  void SetPeerSystemType(std::uint8_t type) { mPeerSystemType = type; }

private:
  std::size_t QueuedBytes() const { return mQueue.size() - mQueueBegin; }
  // All with the mutex held.
  TCPE_CommErr SendInTurn(std::span<const std::byte> bytes, Urgency urgency);
  TCPE_FrameTagger* Tagger() { return mSession ? mSession->Tagger() : nullptr; }
  /// False when the transport has failed.
  bool Write(std::span<const std::byte>& bytes);
  bool WriteQueue();
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
  std::atomic<std::uint8_t> mPeerSystemType = 0;
  std::atomic<TCPE_Time> mLastReceived = 0;
  std::uint64_t mEarlyReceived = 0; ///< bytes before there was anything to count in
  std::uint64_t mEarlySent = 0;
  std::shared_ptr<TCPE_PeerTraffic> mTraffic;
  TCPE_ByteTap& mTap;
  TCPE_TappedBytes mEnds; ///< of the transport, as a tap is told; no ports while it is not connected

  mutable std::mutex mMutex; // guards writing and closing the socket, and what follows
  std::vector<std::byte> mQueue;
  std::size_t mQueueBegin = 0;
  std::vector<std::byte> mHeldBack; ///< until the session has answered the peer
  std::size_t mHeldBackSize = 0;    ///< with the tags that they will get
  std::vector<std::byte> mTagged;   ///< frames that leave now
  bool mAnswerIsDue = false;
  std::shared_ptr<TCPE_Session> mSession;
  TCPE_Time mLastWrite = 0;
  bool mFlushIsDue = false;
  bool mClosesWhenSent = false;
  bool mHasFailed = false;
};
