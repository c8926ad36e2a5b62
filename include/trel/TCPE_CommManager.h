#pragma once

#include <trel/TCPE_CommPreferences.h>
#include <trel/TCPE_Counters.h>
#include <trel/TCPE_EngineSnapshot.h>
#include <trel/TCPE_System.h>
#include <trel/TCPE_TappedBytes.h>
#include <trel/TCPE_Types.h>
#include <trel/Trel_Export.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <span>
#include <string>
#include <thread>
#include <vector>

class Sys_UDPSocket;
class TCPE_ByteTap;
class TCPE_Command;
class TCPE_CommTask;
class TCPE_Engine;

/// The communication engine: connections to other systems, sending, receiving, replies.
///
/// Constructing one starts nothing; Initialize opens a listening socket and starts the threads, Terminate ends them. A
/// host has one for its process; a second one in the same process, on an address of its own, is a system of its own.
/// All operations are thread-safe unless they say otherwise, none is real-time-safe, and before Initialize connections
/// are refused, commands are dropped with an error, and lists are empty.
///
/// What a handler, callback, hook, log or tap of the host throws goes no further: it is reported as an assertion (of a
/// byte tap alone it is not), the first time and whenever it has happened twice as often, and counted
/// (TCPE_EngineSnapshot::hostFailures). Who asked gets an error; a hook that throws has said no.
///
/// In a process that was forked from the one that initialised the engine, the engine counts as not initialised, cannot
/// be initialised, and Terminate does nothing: the child leaves the sockets and threads of its parent alone.
///
/// The base has no virtual destructor: destroy an object through its exact type, and terminate a subclass before.
class TREL_EXPORT TCPE_CommManager {
public:
  using ENetworkError = ETCPE_NetworkError;
  /// Told once when a connection is lost, or when a peer refuses one; runs on a handler thread, after the handlers of
  /// the commands that came before from that peer. `address` is the peer's, host order.
  ///
  /// So a handler that takes long holds it up, and the peer may be connected anew by then. An end is never that of the
  /// connection which stands: a host that keeps a picture of the link asks IsConnected, under a lock of its own, both
  /// when it is told of an end and when it notes that Connect has succeeded.
  ///
  /// With eNetworkError_Authentication also told when a system that wants to connect to this one does not prove the
  /// shared secret, or requires one and this system has none; then at most once in the time for which a failure marks
  /// an address (see GetAuthenticationFailed), and of all addresses together 32 times at once and once a second from
  /// then on, so that attempts cannot flood the host (TCPE_Counters::untoldFailures). eNetworkError_Flood names one of
  /// the addresses from which more connections come than there are places for newcomers; every 10 s at the most.
  using NetworkErrorProc = void (*)(ENetworkError error, std::uint32_t address);
  /// Gets one line for each command sent, received and replied to, and for each connection that is lost; runs on the
  /// thread that does it.
  using CommandLogProc = void (*)(const char* line);

  TCPE_CommManager();
  ~TCPE_CommManager();
  TCPE_CommManager(const TCPE_CommManager&) = delete;
  TCPE_CommManager& operator=(const TCPE_CommManager&) = delete;

  // The order of the virtual operations is part of the interface. The engine calls the first three from within
  // Initialize and Terminate, the others from its network thread: they must not block.
  virtual std::int32_t InitializeSubclass();
  virtual void TerminateSubclass();
  virtual TCPE_CommTask* CreateCommTask(std::uint16_t communicationPort, std::uint16_t discoveryPort,
                                        TCPE_System* localSystem);
  virtual std::int32_t GetDiscoveryPort();
  virtual std::int32_t GetCommunicationPort();
  /// Answers a synchronous command in place; true when it did.
  virtual bool HandleSyncCommand(TCPE_Command* command);
  /// Consumes an asynchronous command in place; true when it did.
  virtual bool HandleAsyncCommand(TCPE_Command* command);
  /// Whether a system with this address may connect.
  virtual bool AllowConnect(std::uint32_t address);
  /// What this system answers to those who look for systems: a satellite whether it is free to be linked, that is not
  /// connected; any other system whether it allows satellites to connect and has room for one.
  virtual bool IsAvailable();
  /// A connection has been made, by either side: told before it counts as connected and before its first command.
  /// `instance` is the number that the peer's engine drew when it was initialised.
  virtual void PeerConnected(std::uint32_t address, std::uint64_t instance, ETCPE_SystemType type);

  /// True: current numbering; false: legacy numbering. Real-time-safe.
  static bool GetSupportsMarlo11();
  /// Overrides the numbering for the process. Once a handler is registered or an engine is initialised it reports an
  /// assertion and changes nothing.
  static void SetSupportsMarlo11(bool supports);
  /// Takes the numbering from the start-up option "SupportsMarlo11" (default 1), unless it has been overridden.
  static void ReadNumberingOption();
  /// While anybody holds the numbering it cannot be overridden. Calls nest.
  static void HoldNumbering();
  static void ReleaseNumbering();

  /// Starts the engine. Null preferences stand for address 0 and the default port. With the start-up option
  /// "SharedSecretFile" only systems that prove the same secret are linked; deriving its key takes some 50 ms, and as
  /// long for a second one.
  /// @return 0, or an ETCPE_Status; after a failure nothing is left running
  std::int32_t Initialize(TCPE_CommPreferences* preferences, NetworkErrorProc onNetworkError);
  /// The last Initialize in words: why it failed, with the ports and addresses concerned, or what it chose where there
  /// was a choice. Empty when there is nothing to tell.
  std::string GetInitializationReport() const;
  bool IsInitialized() const;
  /// Ends the engine: tells the peers, fails waiting senders, waits until callers have left. Returns within a second
  /// also with calls in flight; a handler that is still running then is left to end by itself, and a command that was
  /// taken can be given back later. From a handler thread or a callback it reports an assertion and does nothing.
  void Terminate();
  /// Periodic work of the engine; the host calls it from its idle loop. Looks once a second whether the adaptor in use
  /// still has its address. If not, the connections that depended on it are lost, and the engine moves to the address
  /// that Initialize would choose now; while there is none it is not connected to anybody, and keeps looking.
  void DoIdle();

  /// Opens a connection and waits until the peer has admitted this system, 16 s at the most. False for this system's
  /// own address, 0 and broadcast addresses; true at once when connected already. Not from a network-thread hook.
  bool Connect(std::uint32_t address);
  /// Sends what is queued, tells the peer, closes. True when there was a connection.
  bool Disconnect(std::uint32_t address);
  bool IsConnected(std::uint32_t address) const;
  std::set<std::uint32_t> GetConnectedAddresses() const;
  /// Which instance of an engine is connected at an address: the random number that it drew when it was initialised.
  /// As long as the number is the same, so is the process, and its running time goes on. 0 when not connected.
  std::uint64_t GetPeerInstance(std::uint32_t address) const;
  /// The number of the connection with a system, which no other connection since Initialize has; 0 without one. What is
  /// told of a system may be of the past: TCPE_Command::GetConnection says which connection a command came on.
  std::uint64_t GetConnection(std::uint32_t address) const;
  /// The connected addresses, each with the number of its connection.
  std::map<std::uint32_t, std::uint64_t> GetConnections() const;

  /// Sends a command to its destination address. The command is encoded before the call returns and stays the caller's.
  ///
  /// An asynchronous one reaches its handler after all that were sent to this peer before, or the connection ends. When
  /// the peer has not finished 1024 of them, or takes nothing, the call waits, first come first served, for 3 s without
  /// any progress of the peer at the most: then the connection ends (eNetworkError_PeerTooSlow, at both systems) and
  /// GetError() is eTCPE_CommErr_ConnectionLost. A handler that waits lets the peer's next command start. Hooks on the
  /// network thread, and threads that pump, do not wait but get eTCPE_CommErr_QueueFull.
  /// A synchronous one returns when it has ended, once: with the reply in the command, or with the task's error
  /// identifier as its type, GetError() telling why, and no field changed.
  void SendCommand(TCPE_Command* command);
  /// Told of a reply: the place of its address among those that the command was sent to, and the command with the reply
  /// in it, which is there for this call.
  using ReplyProc = std::function<void(std::size_t place, const TCPE_Command& reply)>;
  /// Sends one command to several addresses, encoded once; its own address is not looked at. What became of it is told
  /// for each address, as GetError() would.
  ///
  /// An asynchronous one is kept for who cannot take it now, as within NeverWaits, and the call does not wait. A
  /// synchronous one waits for all replies together, as long as for one; then `onReply` is called on this thread for
  /// each that came, in the order of the addresses. The command itself stays as it was.
  std::vector<TCPE_CommErr> SendCommandToAll(TCPE_Command* command, std::span<const std::uint32_t> addresses,
                                             const ReplyProc& onReply = nullptr);
  /// While one lives, asynchronous sends of its thread never wait: a command for which there is no room is kept for its
  /// peer, and goes when there is. 1024 commands, or 128 KiB, are kept; a peer for which more would have to be is too
  /// slow, and its connection ends. For threads that must go on. Calls nest.
  class TREL_EXPORT NeverWaits {
  public:
    NeverWaits();
    ~NeverWaits();
    NeverWaits(const NeverWaits&) = delete;
    NeverWaits& operator=(const NeverWaits&) = delete;
    /// Whether one lives on this thread.
    static bool IsInForce();
  };
  /// With host-pumped delivery: the next received command, or null. The caller executes it and gives it back with
  /// DisposeCommand, which sends the reply. A network error that is due is reported from within this call. Null without
  /// host-pumped delivery.
  TCPE_Command* TakeCommand();
  void DisposeCommand(TCPE_Command* command);
  /// Part of the sequence of a host that pumps: TakeCommand, this, execution, DisposeCommand. The engine has acted on
  /// connect and disconnect commands before they can be taken, so nothing is left to do here.
  void PreProcessConnectionCommands(TCPE_Command* command);
  /// Delivers commands through TakeCommand in place of the handler threads. An engine that is running goes on as it was
  /// initialised. While the only thread that pumps waits for a reply, this system answers nothing: two that pump must
  /// not query each other from there.
  void SetHostPumpedDelivery(bool hostPumped);
  /// Reports a network error of a peer: the connection, if there is one, is closed and the host's callback is told.
  void NetworkErrorOccured(ENetworkError error, std::uint32_t address);
  /// Whether a system at the address failed to prove the shared secret within the last ten seconds (start-up option
  /// "AuthenticationFailureSeconds"; after five failures within ten seconds until these are over), and none has proved
  /// it since. False when not initialised.
  bool GetAuthenticationFailed(std::uint32_t address) const;

  /// Sends the question for master systems, or for satellites, from a registered socket to one address; with address 0
  /// to the adaptor's whole network. A socket's new question takes the place of its old one. With a shared secret who
  /// is asked from another address than the adaptor's does not answer; a socket that is not bound is bound to that.
  /// False when it could not be sent.
  bool SendDiscoverMasterSystemsCommand(Sys_UDPSocket* socket, std::uint32_t address);
  bool SendDiscoveryRequestCommand(Sys_UDPSocket* socket, std::uint32_t address);
  /// Waits for the next reply to the question that the socket has sent, from whatever address but this system's own;
  /// anything else that arrives is ignored and counted. Lowers the remaining milliseconds by the time that it waited:
  /// calls in a row end when what the first was given has passed, also when replies come within a millisecond. Sets
  /// them to 0 when no reply can come: nothing was asked, or the engine has been terminated.
  /// @return true when a reply was read; otherwise the outputs keep their values
  bool ReceiveDiscoverMasterSystemsReply(Sys_UDPSocket* socket, std::int32_t* remainingMilliseconds,
                                         std::string* hostName, std::string* systemName, std::uint32_t* address,
                                         ETCPE_SystemType* systemType, std::uint8_t* majorVersion,
                                         std::uint8_t* minorVersion, bool* isAvailable);
  bool ReceiveDiscoveryRequestReply(Sys_UDPSocket* socket, std::int32_t* remainingMilliseconds, std::string* hostName,
                                    std::string* systemName, std::uint32_t* address, ETCPE_SystemType* systemType,
                                    std::uint8_t* majorVersion, std::uint8_t* minorVersion, bool* isAvailable);

  /// What was dropped or turned away since Initialize; all zero before.
  TCPE_Counters GetCounters() const;
  /// What the engine knows of itself and its peers. Cheap enough for ten calls a second with 128 peers: it reads
  /// counters and takes each peer's locks for a moment. Allocates.
  TCPE_EngineSnapshot GetSnapshot() const;
  /// Gives a peer the name that snapshots have, which the engine itself learns only from peers that connect to it. Does
  /// nothing for an address that it has not been connected with.
  void SetPeerName(std::uint32_t address, const char* name);

  /// Installs the command log, or removes it with null. The hook must not send synchronous commands.
  void SetCommandLog(CommandLogProc log);
  /// Installs the byte tap, or removes it with null; also before Initialize. Afterwards no call of the one before is
  /// under way. Not from within a tap.
  void SetByteTap(TCPE_ByteTapProc tap, void* context = nullptr);

  // Roles and names hold from before Initialize; all flags start false.
  bool IsSatellite() const { return mIsSatellite; }
  void SetIsSatellite(bool isSatellite) { mIsSatellite = isSatellite; }
  bool AllowSatellitesToConnectToMasterSystem() const { return mAllowSatellites; }
  void SetAllowSatellitesToConnectToMasterSystem(bool allow) { mAllowSatellites = allow; }
  bool IsMasterClock() const { return mIsMasterClock; }
  void SetIsMasterClock(bool isMasterClock) { mIsMasterClock = isMasterClock; }
  ETCPE_SystemType GetSystemType() const;
  /// 0..255.
  void SetSystemType(ETCPE_SystemType type);
  /// The text stays valid until this thread asks this manager again, or the manager is gone.
  const char* GetSystemName() const;
  /// At most 29 characters; a longer name is cut. A command that carries one says "Unknown System Name" in its place.
  void SetSystemName(const char* name);
  /// A random positive number unless the host sets one; 0 is none.
  std::int32_t GetUniqueID() const;
  void SetUniqueID(std::int32_t identifier);
  /// This system's record; owned by the manager.
  TCPE_System* GetLocalSystem() { return &mLocalSystem; }
  /// The record as it is now; safe while another thread changes it.
  TCPE_System CopyLocalSystem() const;

  /// Address of the adaptor in use, host order; 0 before Initialize, and while no adaptor can be used.
  std::uint32_t GetAdaptorIPAddress() const { return mAdaptorIPAddress; }
  std::uint32_t GetLocalSystemConnectionIDIP() const { return mLocalConnectionIP; }
  void SetLocalSystemConnectionIDIP(std::uint32_t address) { mLocalConnectionIP = address; }
  std::uint16_t GetLocalSystemConnectionIDPort() const { return mLocalConnectionPort; }
  void SetLocalSystemConnectionIDPort(std::uint16_t port) { mLocalConnectionPort = port; }
  std::uint32_t GetMasterSystemConnectionIDIPForDiscovery() const { return mMasterConnectionIP; }
  void SetMasterSystemConnectionIDIPForDiscovery(std::uint32_t address) { mMasterConnectionIP = address; }
  std::uint16_t GetMasterSystemConnectionIDPortForDiscovery() const { return mMasterConnectionPort; }
  void SetMasterSystemConnectionIDPortForDiscovery(std::uint16_t port) { mMasterConnectionPort = port; }
  std::uint32_t GetMasterSystemIPAddress() const { return mMasterSystemIPAddress; }
  void SetMasterSystemIPAddress(std::uint32_t address) { mMasterSystemIPAddress = address; }

protected:
  // Ports as configured; 0 is unset.
  std::atomic<std::uint16_t> mDiscoveryPort = 0;
  std::atomic<std::uint16_t> mCommunicationPort = 0;

private:
  class Caller;
  static constexpr std::uint32_t kIsClosed = 1;
  static constexpr std::uint32_t kCaller = 2;

  bool TryEnter() const;
  void Leave() const;

  std::int32_t Start(TCPE_CommPreferences* preferences, NetworkErrorProc onNetworkError, std::string* report);
  /// In a process forked from the one in which the engine runs.
  bool IsInherited() const;
  void LookAfterAdaptor();
  bool ReceiveDiscoveryReply(bool ofMaster, Sys_UDPSocket* socket, std::int32_t* remainingMilliseconds,
                             std::string* hostName, std::string* systemName, std::uint32_t* address,
                             ETCPE_SystemType* systemType, std::uint8_t* majorVersion, std::uint8_t* minorVersion,
                             bool* isAvailable);
  void SetUpLocalSystem(std::uint32_t address, std::uint16_t port, TCPE_CommTask& task);

  mutable std::mutex mMutex; // guards the engine pointers, the report, the local record and its name as handed out, the
                             // log and the way of delivery
  mutable std::condition_variable mCallersHaveLeft;
  /// That are inside, and whether nobody comes in any more.
  mutable std::atomic<std::uint32_t> mCallers = kIsClosed;
  std::atomic<TCPE_Engine*> mEntered = nullptr; // the last one that callers have come into
  std::mutex mLifecycleMutex;                   // guards what follows, and starting and ending
  std::uint32_t mPreferredAddress = 0;
  std::uint32_t mBroadcastAddress = 0;
  std::atomic<std::int64_t> mAdaptorCheckIsDue = 0; // raw time
  std::atomic<std::int64_t> mProcess = 0;           // in which the engine runs; 0: none does
  std::shared_ptr<TCPE_Engine> mEngine;
  std::shared_ptr<TCPE_Engine> mEndingEngine;       // while Terminate stops it
  std::vector<std::shared_ptr<TCPE_Engine>> mEnded; // that a caller has not left in time
  TCPE_System mLocalSystem;
  /// The name as each thread has got it, which reads it while another one may set it. Not of the thread's own storage:
  /// a destructor there keeps a library from being unloaded.
  mutable std::map<std::thread::id, TCPE_System> mHandedOut;
  std::string mInitializationReport;
  CommandLogProc mCommandLog = nullptr;
  const std::shared_ptr<TCPE_ByteTap> mByteTap;
  bool mHostPumped = false;
  std::atomic<bool> mIsSatellite = false;
  std::atomic<bool> mAllowSatellites = false;
  std::atomic<bool> mIsMasterClock = false;
  std::atomic<std::uint32_t> mAdaptorIPAddress = 0;
  std::atomic<std::uint32_t> mLocalConnectionIP = 0;
  std::atomic<std::uint32_t> mMasterConnectionIP = 0;
  std::atomic<std::uint32_t> mMasterSystemIPAddress = 0;
  std::atomic<std::uint16_t> mLocalConnectionPort = 0;
  std::atomic<std::uint16_t> mMasterConnectionPort = 0;
};
