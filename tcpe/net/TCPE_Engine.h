#pragma once

#include "tcpe/protocol/TCPE_AuthenticationKey.h"
#include "tcpe/protocol/TCPE_DiscoveryCodec.h"
#include "tcpe/protocol/TCPE_Limits.h"

#include <trel/TCPE_CommManager.h>
#include <trel/TCPE_CommTask.h>

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

class Sys_UDPSocket;
class TCPE_ByteTap;
class TCPE_Command;

/// A running engine: what stands between a manager's callers, the network and the handlers.
///
/// Lives from the manager's Initialize to its Terminate; callers and handlers that are still inside then keep it.
class TCPE_Engine {
public:
  struct Setup {
    TCPE_CommManager* manager = nullptr;
    std::unique_ptr<TCPE_CommTask> task;
    TCPE_Limits limits;
    std::uint32_t localAddress = 0;
    std::string adaptorName;
    std::uint32_t broadcastAddress = 0;
    /// Of the shared secret; null without one.
    std::shared_ptr<const TCPE_AuthenticationKey> key{};
    TCPE_CommManager::NetworkErrorProc onNetworkError = nullptr;
    std::shared_ptr<TCPE_ByteTap> byteTap;
    bool answersDiscovery = true;
  };

  /// Makes an engine that does nothing yet.
  static std::shared_ptr<TCPE_Engine> Make(Setup setup);
  TCPE_Engine() = default;
  virtual ~TCPE_Engine() = default;
  TCPE_Engine(const TCPE_Engine&) = delete;
  TCPE_Engine& operator=(const TCPE_Engine&) = delete;

  /// As in TCPE_CommManager; before Start.
  virtual void SetHostPumpedDelivery(bool hostPumped) = 0;
  /// Starts listening and the threads. After a failure nothing is left running.
  virtual ETCPE_Status Start() = 0;
  /// Tells the peers, fails waiting senders, ends the threads.
  virtual void Stop() = 0;
  /// On one of its own threads an engine cannot be stopped: it would wait for itself.
  virtual bool IsOnOwnThread() const = 0;

  // As in TCPE_CommManager.
  virtual bool Connect(std::uint32_t address) = 0;
  virtual bool Disconnect(std::uint32_t address) = 0;
  virtual bool IsConnected(std::uint32_t address) const = 0;
  virtual std::set<std::uint32_t> GetConnectedAddresses() const = 0;
  virtual std::uint64_t GetPeerInstance(std::uint32_t address) const = 0;
  virtual std::uint64_t GetConnection(std::uint32_t address) const = 0;
  virtual std::map<std::uint32_t, std::uint64_t> GetConnections() const = 0;
  virtual void SendCommand(TCPE_Command& command) = 0;
  virtual std::vector<TCPE_CommErr> SendCommandToAll(TCPE_Command& command, std::span<const std::uint32_t> addresses,
                                                     const TCPE_CommManager::ReplyProc& onReply) = 0;
  virtual TCPE_Command* TakeCommand() = 0;
  virtual void DisposeCommand(TCPE_Command* command) = 0;
  virtual void NetworkErrorOccured(ETCPE_NetworkError error, std::uint32_t address) = 0;
  virtual void SetLocalSystemType(ETCPE_SystemType type) = 0;
  virtual void SetCommandLog(TCPE_CommManager::CommandLogProc log) = 0;
  virtual bool GetAuthenticationFailed(std::uint32_t address) const = 0;
  virtual TCPE_Counters GetCounters() const = 0;
  virtual TCPE_EngineSnapshot GetSnapshot() const = 0;
  virtual void SetPeerName(std::uint32_t address, const char* name) = 0;
  virtual bool SendDiscoveryQuery(Sys_UDPSocket& socket, TCPE_DiscoveryCodec::Kind kind, std::uint32_t address) = 0;
  virtual bool ReceiveDiscoveryReply(Sys_UDPSocket& socket, TCPE_DiscoveryCodec::Kind kind,
                                     std::int32_t* remainingMilliseconds, TCPE_DiscoveryCodec::Reply* reply) = 0;

  /// Whether the task's limit of connections is reached.
  virtual bool IsFull() const = 0;
  /// Gives the engine another address; 0 while there is none. Carried out soon after.
  virtual void MoveTo(std::uint32_t address, std::uint32_t broadcastAddress, const std::string& adaptorName) = 0;
  /// False after a move while its sockets could not be opened.
  virtual bool IsListening() const = 0;

  /// Gives back a command that was taken from an engine which has been stopped meanwhile.
  static void DisposeOrphan(TCPE_Command* command);
};
