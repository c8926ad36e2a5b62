#pragma once

#include "tcpe/engine/TCPE_Delivery.h"
#include "tcpe/engine/TCPE_Dispatcher.h"
#include "tcpe/engine/TCPE_PeerHistory.h"
#include "tcpe/engine/TCPE_PumpQueue.h"
#include "tcpe/net/TCPE_DiscoveryClient.h"
#include "tcpe/net/TCPE_Network.h"
#include "tcpe/protocol/TCPE_DiscoveryCodec.h"
#include "tcpe/protocol/TCPE_Limits.h"
#include "tcpe/protocol/TCPE_Numbering.h"
#include "tcpe/protocol/TCPE_SharedKeys.h"

#include <trel/Sys_Clock.h>
#include <trel/TCPE_CommManager.h>
#include <trel/TCPE_CommTask.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

class Sys_UDPSocket;
class TCPE_Command;

/// A running engine: what stands between a manager's callers, the network and the handlers.
///
/// Lives from the manager's Initialize to its Terminate; callers and handlers that are still inside then keep it.
class TCPE_Engine final : public std::enable_shared_from_this<TCPE_Engine>,
                          private TCPE_Network::Listener,
                          private TCPE_Dispatcher::Receiver {
public:
  struct Setup {
    TCPE_CommManager* manager = nullptr;
    std::unique_ptr<TCPE_CommTask> task;
    TCPE_Limits limits;
    std::uint32_t localAddress = 0;
    std::string adaptorName;
    std::uint32_t broadcastAddress = 0;
    TCPE_SharedKeys keys{};
    bool isSecretMadeUp = false; ///< one of the secrets, by people
    TCPE_CommManager::NetworkErrorProc onNetworkError = nullptr;
    std::shared_ptr<TCPE_ByteTap> byteTap;
    bool answersDiscovery = true;
  };

  /// Does nothing yet.
  explicit TCPE_Engine(Setup setup);
  TCPE_Engine(const TCPE_Engine&) = delete;
  TCPE_Engine& operator=(const TCPE_Engine&) = delete;

  /// As in TCPE_CommManager; before Start.
  void SetHostPumpedDelivery(bool hostPumped);
  /// Starts listening and the threads. After a failure nothing is left running.
  ETCPE_Status Start();
  /// Tells the peers, fails waiting senders, ends the threads.
  void Stop();
  /// On one of its own threads an engine cannot be stopped: it would wait for itself.
  bool IsOnOwnThread() const;

  // As in TCPE_CommManager.
  bool Connect(std::uint32_t address);
  bool Disconnect(std::uint32_t address);
  bool IsConnected(std::uint32_t address) const;
  std::set<std::uint32_t> GetConnectedAddresses() const;
  std::uint64_t GetPeerInstance(std::uint32_t address) const;
  std::uint64_t GetConnection(std::uint32_t address) const;
  std::map<std::uint32_t, std::uint64_t> GetConnections() const;
  void SendCommand(TCPE_Command& command);
  std::vector<TCPE_CommErr> SendCommandToAll(TCPE_Command& command, std::span<const std::uint32_t> addresses,
                                             const TCPE_CommManager::ReplyProc& onReply);
  TCPE_Command* TakeCommand();
  void DisposeCommand(TCPE_Command* command);
  void NetworkErrorOccured(ETCPE_NetworkError error, std::uint32_t address);
  void SetLocalSystemType(ETCPE_SystemType type);
  void SetCommandLog(TCPE_CommManager::CommandLogProc log);
  bool GetAuthenticationFailed(std::uint32_t address) const;
  TCPE_Counters GetCounters() const;
  TCPE_EngineSnapshot GetSnapshot() const;
  void SetPeerName(std::uint32_t address, const char* name) { mHistory.SetName(address, name); }
  bool SendDiscoveryQuery(Sys_UDPSocket& socket, TCPE_DiscoveryCodec::Kind kind, std::uint32_t address);
  bool ReceiveDiscoveryReply(Sys_UDPSocket& socket, TCPE_DiscoveryCodec::Kind kind, std::int32_t* remainingMilliseconds,
                             TCPE_DiscoveryCodec::Reply* reply);

  /// Whether the task's limit of connections is reached.
  bool IsFull() const;
  /// Gives the engine another address; 0 while there is none. Carried out soon after.
  void MoveTo(std::uint32_t address, std::uint32_t broadcastAddress, const std::string& adaptorName);
  /// False after a move while its sockets could not be opened.
  bool IsListening() const { return mNetwork->IsListening(); }

  /// Gives back a command that was taken from an engine which has been stopped meanwhile.
  static void DisposeOrphan(TCPE_Command* command) { TCPE_PumpQueue::ReturnOrphan(command); }

private:
  using ConnectionPointer = TCPE_Network::ConnectionPointer;
  using ReceivedPointer = TCPE_Dispatcher::ReceivedPointer;

  /// An attempt to connect that callers wait for.
  struct Attempt {
    bool hasEnded = false;
    bool isConnected = false;
  };
  TCPE_Endpoint::Config EndpointConfig(const TCPE_SharedKeys& keys);
  TCPE_DiscoveryCodec::Config DatagramConfig(const TCPE_SharedKeys& keys) const;
  TCPE_DiscoveryResponder::Config ResponderConfig(const TCPE_SharedKeys& keys);
  std::vector<std::byte> MakeConnectFrame(std::uint32_t address);
  bool IsPossiblePeer(std::uint32_t address) const;
  ConnectionPointer ConnectionOf(std::uint32_t address) const;
  /// Null where there is none.
  std::vector<ConnectionPointer> ConnectionsOf(std::span<const std::uint32_t> addresses) const;
  /// From now on the connection is none any more; `error` is none when it ends in good order. True for the first
  /// caller: it is the one to tell of the end.
  bool TryEnd(const ConnectionPointer& connection, ETCPE_NetworkError error);
  /// Lets those go on who wait for an attempt; false when nobody does. With the mutex of the connections held.
  bool EndAttempt(std::uint32_t address, bool isConnected);
  /// Ends a connection on this side's wish: what is queued goes out, then the disconnect command.
  void Farewell(const ConnectionPointer& connection, TCPE_CommErr waitersGet);

  /// Of several synchronous commands that are sent together.
  struct SentQuery {
    SentQuery(ConnectionPointer to, std::size_t placeInList, std::uint32_t serialNumber)
        : connection(std::move(to)), place(placeInList), serial(serialNumber), call(Sys_Clock::RawMicroseconds()) {}

    const ConnectionPointer connection;
    const std::size_t place;
    const std::uint32_t serial;
    TCPE_Call call;
  };

  /// What the command is on the wire; an error when it cannot be sent by anybody.
  TCPE_CommErr Prepare(TCPE_Command& command, TCPE_eCmd* wireType);
  TCPE_CommErr Send(TCPE_Command& command);
  TCPE_CommErr Encode(TCPE_CommandCodec& codec, TCPE_Command& command, const TCPE_CommandCodec::Stamp& stamp);
  static void NoteRefused(TCPE_Connection& connection, TCPE_CommErr error);
  /// Sends a query; its reply ends the call.
  TCPE_CommErr SendQuery(std::span<const std::byte> frame, TCPE_Connection& connection, std::uint32_t serial,
                         TCPE_Call& call);
  /// Sends an asynchronous command; waits for credit where this thread may wait.
  TCPE_CommErr SendInCredit(TCPE_Command& command, TCPE_Connection& connection, const TCPE_CommandCodec::Stamp& stamp);
  TCPE_CommErr SendInCredit(std::span<const std::byte> frame, TCPE_Connection& connection);
  TCPE_CommErr SendAndWait(TCPE_Command& command, TCPE_Connection& connection, TCPE_CommandCodec::Stamp stamp,
                           bool* isSent);
  /// Of a call that has ended.
  TCPE_CommErr ResultOf(TCPE_Connection& connection, const TCPE_Call& call);
  TCPE_CommErr TakeReply(TCPE_Command& command, TCPE_eCmd wireType, const TCPE_Call& call);
  /// A fresh object with the reply in it; null when it is malformed.
  ReceivedPointer DecodeReply(TCPE_eCmd wireType, const TCPE_Call& call);
  void NoteReply(TCPE_Command& command, const TCPE_Call& call, std::uint32_t address);

  void OnOpened(const ConnectionPointer& connection, const TCPE_Endpoint::Event& event) override;
  void OnFrame(const ConnectionPointer& connection, const TCPE_FrameHeader& header, std::span<const std::byte> payload,
               const TCPE_Arrival& arrival) override;
  void OnDisconnected(const ConnectionPointer& connection, const TCPE_FrameHeader& header,
                      std::span<const std::byte> payload) override;
  void OnLost(const ConnectionPointer& connection, ETCPE_NetworkError error) override;
  void OnConnectEnded(std::uint32_t address, TCPE_CommErr error) override;
  void OnStrangers(ETCPE_NetworkError error, std::uint32_t address) override;
  void OnAllTold() override { DeliverBatch(); }
  void OnStopping() override;
  void OnConnectionCommand(const TCPE_ReceivedCommand& received) override;
  bool Deliver(ReceivedPointer& received) override;
  void Handle(TCPE_ReceivedCommand& received) override;
  void OnArrived(TCPE_Connection& connection, TCPE_ReceivedCommand::Kind kind) override;
  void OnFinished(const ConnectionPointer& connection, TCPE_ReceivedCommand::Kind kind, bool wasHandled) override;
  bool TakesUnhandled() const override { return mDelivery->TakesUnhandled(); }
  /// Why a peer cannot be admitted; none when it can.
  TCPE_CommErr ExamineConnect(std::uint32_t address, const TCPE_FrameHeader& header,
                              std::span<const std::byte> payload);
  /// Hands on what was gathered. On the network thread.
  void DeliverBatch();
  void ReportNetworkError(ETCPE_NetworkError error, std::uint32_t address);

  TCPE_CommManager& mManager;
  const std::unique_ptr<TCPE_CommTask> mTask;
  const TCPE_Limits mLimits;
  const std::size_t mMaxConnections;
  std::atomic<std::uint32_t> mLocalAddress;
  std::atomic<std::uint32_t> mBroadcastAddress;
  const TCPE_CommManager::NetworkErrorProc mOnNetworkError;
  const TCPE_EngineTypes& mTypes;
  std::atomic<bool> mIsStopping = false;
  std::atomic<std::uint32_t> mLastSerial = 0;
  const TCPE_Time mStarted;
  const std::size_t mSecrets;
  const bool mIsSecretMadeUp;
  std::string mAdaptorName; ///< guarded by the mutex of the connections
  TCPE_PeerHistory mHistory;

  mutable std::mutex mConnectedMutex; // guards what follows
  std::map<std::uint32_t, ConnectionPointer> mConnected;
  std::map<std::uint32_t, std::shared_ptr<Attempt>> mAttempts;
  std::condition_variable mAttemptEnded;
  std::size_t mFarewells = 0; ///< that are being said on the host's threads
  std::condition_variable mFarewellSaid;

  TCPE_Dispatcher mDispatcher;
  std::unique_ptr<TCPE_Delivery> mDelivery; ///< from Start on it stays as it is
  TCPE_JobList mBatch;                      ///< commands of one connection; the network thread's own
  ConnectionPointer mBatchOf;
  const std::shared_ptr<TCPE_ByteTap> mByteTap;
  TCPE_DiscoveryClient mDiscoveryClient;
  std::unique_ptr<TCPE_Network> mNetwork;
};
