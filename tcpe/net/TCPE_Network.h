#pragma once

#include "tcpe/net/TCPE_Connection.h"
#include "tcpe/net/TCPE_DiscoveryService.h"
#include "tcpe/protocol/TCPE_Endpoint.h"

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <thread>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/steady_timer.hpp>

/// The shell around the endpoint: the network thread, its sockets and its timer.
class TCPE_Network final : private TCPE_Connection::Owner {
public:
  using ConnectionPointer = std::shared_ptr<TCPE_Connection>;

  /// What the network thread tells; called on that thread, outside every lock.
  class Listener {
  public:
    virtual void OnOpened(const ConnectionPointer& connection, const TCPE_Endpoint::Event& event) = 0;
    virtual void OnFrame(const ConnectionPointer& connection, const TCPE_FrameHeader& header,
                         std::span<const std::byte> payload, const TCPE_Arrival& arrival) = 0;
    virtual void OnDisconnected(const ConnectionPointer& connection, const TCPE_FrameHeader& header,
                                std::span<const std::byte> payload) = 0;
    virtual void OnLost(const ConnectionPointer& connection, ETCPE_NetworkError error) = 0;
    virtual void OnConnectEnded(std::uint32_t address, TCPE_CommErr error) = 0;
    /// Strangers at the address are a nuisance: they do not prove the secret, or flood this system.
    virtual void OnStrangers(ETCPE_NetworkError error, std::uint32_t address) = 0;
    /// There is nothing more to tell for the time being.
    virtual void OnAllTold() = 0;
    /// The last that is told, while the connections are still there.
    virtual void OnStopping() = 0;

  protected:
    ~Listener() = default;
  };

  /// Where others find this system.
  struct Place {
    std::uint32_t address = 0; ///< 0: nowhere, for the time being
    std::uint32_t broadcastAddress = 0;
    std::uint16_t port = 0;
    std::uint16_t discoveryPort = 0; ///< 0: it answers no queries
  };

  TCPE_Network(TCPE_Endpoint::Config config, TCPE_DiscoveryResponder::Config discovery, Place place, TCPE_ByteTap& tap,
               Listener& listener);
  ~TCPE_Network();
  TCPE_Network(const TCPE_Network&) = delete;
  TCPE_Network& operator=(const TCPE_Network&) = delete;

  ETCPE_Status Start();
  /// Closes everything and ends the thread; from then on nothing is told.
  void Stop();

  // From any thread; carried out on the network thread.
  void SetLocalSystemType(std::uint8_t type);
  void Connect(std::uint32_t address);
  void End(const ConnectionPointer& connection, ETCPE_NetworkError error);
  /// Reads an open connection no more until it is resumed. On the network thread.
  void Pause(const TCPE_Connection& connection);
  void Resume(const ConnectionPointer& connection);
  /// Opens the listening sockets on another address, or again on the same one. Connections from and to an address that
  /// this system has no more are lost.
  void MoveTo(std::uint32_t address, std::uint32_t broadcastAddress);
  /// False after a move while the listening sockets are not open.
  bool IsListening() const { return mIsListening; }

  bool IsOnNetworkThread() const { return sRunning == this; }
  const TCPE_Endpoint::Counts& Counts() const { return mEndpoint.GetCounts(); }
  bool HasAuthenticationFailed(std::uint32_t address) const;
  const TCPE_DiscoveryCounters& DiscoveryCounters() const { return mDiscovery.Counters(); }

private:
  ETCPE_Status Listen();
  ETCPE_Status OpenListeningSockets();
  void CloseListeningSockets();
  void BeginConnect(std::uint32_t address);
  void Run();
  void OpenTransport(TCPE_Endpoint::Id id, std::uint32_t address);
  void CloseAll(TCPE_Time deadline);
  void Accept();
  void Read(const ConnectionPointer& connection);
  void ReadNow(const ConnectionPointer& connection);
  /// Everything that the endpoint wants done. `concerned`: a connection that may have the nearest deadline.
  void CarryOut(std::optional<TCPE_Endpoint::Id> concerned = std::nullopt);
  void CarryOut(const TCPE_Endpoint::Event& event);
  void ArmTimer(TCPE_Time deadline);
  void OnTransportFailed(TCPE_Endpoint::Id id, ETCPE_NetworkError error) override;
  void OnTellingDue(TCPE_Endpoint::Id id) override;
  void OnReadingDue(const ConnectionPointer& connection) override;
  ConnectionPointer Add(TCPE_Endpoint::Id id, std::uint32_t address, asio::ip::tcp::socket socket);
  /// Null when there is none; valid until connections come or go.
  const ConnectionPointer& Find(TCPE_Endpoint::Id id) const;

  static thread_local const TCPE_Network* sRunning; ///< on this thread

  const TCPE_Limits mLimits;
  Place mPlace;
  TCPE_ByteTap& mTap;
  Listener& mListener;
  TCPE_Endpoint mEndpoint;
  TCPE_ArrivalClock mArrivals;
  asio::io_context mContext{1};
  asio::ip::tcp::acceptor mAcceptor{mContext};
  TCPE_DiscoveryService mDiscovery;
  std::uint64_t mListenings = 0; ///< accepts that were begun on an earlier socket do not continue
  asio::steady_timer mTimer{mContext};
  asio::steady_timer mAcceptPause{mContext};
  asio::steady_timer mCloseTimer{mContext};
  TCPE_Time mTimerArmedFor = 0;
  std::map<TCPE_Endpoint::Id, ConnectionPointer> mConnections;
  std::set<std::uint32_t> mConnectAfterEnd; ///< addresses to connect to when a connection that has ended is closed
  std::list<ConnectionPointer> mClosing;    ///< still sending what was queued
  std::atomic<bool> mIsListening = false;
  std::thread mThread;
};
