#pragma once

#include "tcpe/net/TCPE_DiscoveryClient.h"
#include "tcpe/net/TCPE_Dispatcher.h"
#include "tcpe/net/TCPE_Engine.h"
#include "tcpe/net/TCPE_HandlerPool.h"
#include "tcpe/net/TCPE_Network.h"
#include "tcpe/net/TCPE_PeerHistory.h"
#include "tcpe/net/TCPE_PumpQueue.h"
#include "tcpe/protocol/TCPE_Numbering.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

/// The engine over real sockets and threads.
class TCPE_RunningEngine final : public TCPE_Engine,
                                 public std::enable_shared_from_this<TCPE_RunningEngine>,
                                 private TCPE_Network::Listener,
                                 private TCPE_Dispatcher::Receiver {
public:
  explicit TCPE_RunningEngine(Setup setup);
  ~TCPE_RunningEngine() override = default;

  ETCPE_Status Start() override;
  void Stop() override;
  bool IsOnOwnThread() const override;
  bool Connect(std::uint32_t address) override;
  bool Disconnect(std::uint32_t address) override;
  bool IsConnected(std::uint32_t address) const override;
  std::set<std::uint32_t> GetConnectedAddresses() const override;
  void SendCommand(TCPE_Command& command) override;
  TCPE_Command* TakeCommand() override;
  void DisposeCommand(TCPE_Command* command) override;
  void NetworkErrorOccured(ETCPE_NetworkError error, std::uint32_t address) override;
  void SetLocalSystemType(ETCPE_SystemType type) override;
  void SetCommandLog(TCPE_CommManager::CommandLogProc log) override;
  bool GetAuthenticationFailed(std::uint32_t address) const override;
  TCPE_Counters GetCounters() const override;
  TCPE_EngineSnapshot GetSnapshot() const override;
  void SetPeerName(std::uint32_t address, const char* name) override { mHistory.SetName(address, name); }
  bool SendDiscoveryQuery(Sys_UDPSocket& socket, TCPE_DiscoveryCodec::Kind kind, std::uint32_t address) override;
  bool ReceiveDiscoveryReply(Sys_UDPSocket& socket, TCPE_DiscoveryCodec::Kind kind, std::int32_t* remainingMilliseconds,
                             TCPE_DiscoveryCodec::Reply* reply) override;
  bool IsFull() const override;
  void MoveTo(std::uint32_t address, std::uint32_t broadcastAddress, const std::string& adaptorName) override;
  bool IsListening() const override { return mNetwork->IsListening(); }

private:
  using ConnectionPointer = TCPE_Network::ConnectionPointer;
  using ReceivedPointer = TCPE_Dispatcher::ReceivedPointer;

  /// An attempt to connect that callers wait for.
  struct Attempt {
    bool hasEnded = false;
    bool isConnected = false;
  };
  TCPE_Endpoint::Config EndpointConfig(std::shared_ptr<const TCPE_AuthenticationKey> key);
  TCPE_DiscoveryCodec::Config DatagramConfig(std::shared_ptr<const TCPE_AuthenticationKey> key) const;
  TCPE_DiscoveryResponder::Config ResponderConfig(std::shared_ptr<const TCPE_AuthenticationKey> key);
  std::vector<std::byte> MakeConnectFrame(std::uint32_t address);
  bool IsPossiblePeer(std::uint32_t address) const;
  ConnectionPointer ConnectionOf(std::uint32_t address) const;
  /// The end of a connection, told once; `error` is none when it ended in good order.
  void Ended(const ConnectionPointer& connection, ETCPE_NetworkError error);
  /// Ends a connection on this side's wish: what is queued goes out, then the disconnect command.
  void Farewell(const ConnectionPointer& connection, TCPE_CommErr waitersGet);

  TCPE_CommErr Send(TCPE_Command& command);
  TCPE_CommErr EncodeAndSend(TCPE_Command& command, TCPE_Connection& connection, const TCPE_CommandCodec::Stamp& stamp,
                             TCPE_Connection::Urgency urgency);
  TCPE_CommErr SendAndWait(TCPE_Command& command, TCPE_Connection& connection, TCPE_CommandCodec::Stamp stamp);
  TCPE_CommErr TakeReply(TCPE_Command& command, TCPE_eCmd wireType, const TCPE_Call& call);
  std::unique_ptr<TCPE_ReceivedCommand> FreshCommand(TCPE_eCmd wireType);

  void OnOpened(const ConnectionPointer& connection, const TCPE_Endpoint::Event& event) override;
  void OnFrame(const ConnectionPointer& connection, const TCPE_FrameHeader& header,
               std::span<const std::byte> payload) override;
  void OnDisconnected(const ConnectionPointer& connection, const TCPE_FrameHeader& header,
                      std::span<const std::byte> payload) override;
  void OnLost(const ConnectionPointer& connection, ETCPE_NetworkError error) override;
  void OnConnectEnded(std::uint32_t address, TCPE_CommErr error) override;
  void OnUnproved(std::uint32_t address) override;
  void OnStopping() override;
  void OnConnectionCommand(const TCPE_ReceivedCommand& received) override;
  bool Deliver(const ReceivedPointer& received, bool mustNotBeLost) override;
  bool TakesUnhandled() const override { return mIsHostPumped; }
  /// Why a peer cannot be admitted; none when it can.
  TCPE_CommErr ExamineConnect(std::uint32_t address, const TCPE_FrameHeader& header,
                              std::span<const std::byte> payload);
  bool IsQueueFull(std::uint32_t address) const;
  void RunHandler(TCPE_ReceivedCommand& received);
  void ReportNetworkError(ETCPE_NetworkError error, std::uint32_t address);

  TCPE_CommManager& mManager;
  const std::unique_ptr<TCPE_CommTask> mTask;
  const TCPE_Limits mLimits;
  const std::size_t mMaxConnections;
  std::atomic<std::uint32_t> mLocalAddress;
  std::atomic<std::uint32_t> mBroadcastAddress;
  const TCPE_CommManager::NetworkErrorProc mOnNetworkError;
  const bool mIsHostPumped;
  const TCPE_EngineTypes& mTypes;
  std::atomic<bool> mIsStopping = false;
  std::atomic<std::uint32_t> mLastSerial = 0;
  const TCPE_Time mStarted;
  const bool mIsAuthenticating;
  std::string mAdaptorName; ///< guarded by the mutex of the connections
  TCPE_PeerHistory mHistory;

  mutable std::mutex mConnectedMutex;
  std::map<std::uint32_t, ConnectionPointer> mConnected;

  std::mutex mAttemptsMutex;
  std::condition_variable mAttemptEnded;
  std::map<std::uint32_t, std::shared_ptr<Attempt>> mAttempts;

  TCPE_Dispatcher mDispatcher;
  TCPE_PumpQueue mPumpQueue;
  const std::shared_ptr<TCPE_ByteTap> mByteTap;
  std::shared_ptr<TCPE_HandlerPool> mPool;
  TCPE_DiscoveryClient mDiscoveryClient;
  std::unique_ptr<TCPE_Network> mNetwork;
};
