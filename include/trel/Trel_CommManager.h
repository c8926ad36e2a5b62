#pragma once

#include <trel/TCPE_CommManager.h>
#include <trel/Trel_CommPreferences.h>
#include <trel/Trel_Export.h>
#include <trel/Trel_System.h>

#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <string>
#include <vector>

/// The host's door to the link engine: start and stop, connections, commands, roles and limits.
///
/// The one engine object behind it is created on first use and lives until Terminate; what is set before Initialize
/// (roles, names, identifier, host-pumped delivery, command log, byte tap) holds for it, and is gone with it. A call
/// that is under way on another thread while Terminate runs ends in good order. Unloading the library terminates the
/// engine, and so does the end of the process; not on Windows, where a host must call Terminate.
///
/// Unless they say otherwise the operations are thread-safe, do what TCPE_CommManager's operation of the same name
/// does, and, not initialised, behave as described there. None is real-time-safe: each takes a short lock, and the
/// first one allocates. IPv4 addresses are in host order.
class TREL_EXPORT Trel_CommManager {
public:
  Trel_CommManager() = delete;

  /// Takes the number of satellites from the start-up option "MaxNumberSatellites" (default 11) and starts the engine.
  /// Trel_Init::Init must have run. Null preferences stand for Trel_CommPreferences::Inst(). Blocks while sockets and
  /// threads start.
  /// @return 0, or an ETCPE_Status; after a failure nothing is left running
  static std::int32_t Initialize(Trel_CommPreferences* prefs, TCPE_CommManager::NetworkErrorProc onNetworkError);
  static std::string GetInitializationReport();
  static bool IsInitialized();
  /// Ends the engine and frees it; the limits stay. Senders that wait get an error. Returns within a second. From a
  /// handler or callback it reports an assertion and does nothing.
  static void Terminate();
  /// The link's periodic work; call it from the host's idle loop, initialised or not. A system that does not hold the
  /// master clock reports its clock lock to every connected system when the lock or the set of those systems has
  /// changed since the last report, and once after Initialize.
  static void DoIdle();

  /// Blocks for 16 s at the most.
  static bool Connect(std::uint32_t address);
  static bool Disconnect(std::uint32_t address);
  static bool IsConnected(std::uint32_t address);
  static std::set<std::uint32_t> GetConnectedAddresses();
  static std::uint64_t GetPeerInstance(std::uint32_t address);
  static std::uint64_t GetConnection(std::uint32_t address);

  /// The command stays the caller's. Blocks for one round trip when the command is synchronous.
  static void SendCommand(TCPE_Command* command);
  /// One command to several systems; a synchronous one waits once for all replies. See TCPE_CommManager.
  static std::vector<TCPE_CommErr> SendCommandToAll(TCPE_Command* command, std::span<const std::uint32_t> addresses,
                                                    const TCPE_CommManager::ReplyProc& onReply = nullptr);
  static TCPE_Command* TakeCommand();
  static void DisposeCommand(TCPE_Command* command);
  static void PreProcessConnectionCommands(TCPE_Command* command);
  static void SetHostPumpedDelivery(bool hostPumped);
  static void SetCommandLog(TCPE_CommManager::CommandLogProc log);
  static void SetByteTap(TCPE_ByteTapProc tap, void* context = nullptr);
  static void NetworkErrorOccured(TCPE_CommManager::ENetworkError error, std::uint32_t address);
  static bool GetAuthenticationFailed(std::uint32_t address);
  static TCPE_EngineSnapshot GetSnapshot();
  static void SetPeerName(std::uint32_t address, const char* name);

  /// Asks the network which master systems there are, and adds them with their availability: whether they allow
  /// satellites to connect and have room for one. For a satellite; any other system's list is left as it is, at once.
  /// What the list holds already stays: of several replies from one address the first counts. Blocks for one second.
  /// Not initialised, or without a network, nothing is added and the wait may be shorter.
  static void GetMasterSystemsList(std::map<Trel_System, bool>* list);
  /// The other masters that answer a master, or any system that is no satellite, within 0.3 s, for which it blocks.
  static void GetOtherMastersList(std::map<Trel_System, bool>* list);
  /// As GetMasterSystemsList for satellites, available while they are not linked. For a system that is no satellite. At
  /// the end it removes every system that has failed to authenticate, also one that the list held before.
  static void GetSatelliteList(std::map<Trel_System, bool>* list);
  /// Whether one satellite answers within a second that it is available. For a system that is no satellite. `system`
  /// gets the reply, which may be another system's or absent when the answer is false.
  static bool VerifySatelliteIsAvailable(std::uint32_t address, Trel_System* system);

  static bool IsSatellite();
  static void SetIsSatellite(bool isSatellite);
  static bool AllowSatellitesToConnectToMasterSystem();
  static void SetAllowSatellitesToConnectToMasterSystem(bool allow);
  static bool IsMasterClock();
  static void SetIsMasterClock(bool isMasterClock);
  static ETCPE_SystemType GetSystemType();
  static void SetSystemType(ETCPE_SystemType type);
  /// The text stays valid until this thread asks again or the engine is terminated.
  static const char* GetSystemName();
  /// At most 29 characters; a longer name is cut. A command that carries one says "Unknown System Name" in its place.
  static void SetSystemName(const char* name);
  static std::int32_t GetUniqueID();
  static void SetUniqueID(std::int32_t identifier);
  /// This system's record, owned by the engine; valid until Terminate. Takes no lock once the engine object exists.
  static TCPE_System* GetLocalSystem();
  /// True: current numbering; false: legacy numbering.
  static bool GetSupportsMarlo11();

  /// 28283 unless configured.
  static std::int32_t GetDiscoveryPort();
  /// 28282 unless configured.
  static std::int32_t GetCommunicationPort();
  static std::uint32_t GetAdaptorIPAddress();
  static std::uint32_t GetLocalSystemConnectionIDIP();
  static void SetLocalSystemConnectionIDIP(std::uint32_t address);
  static std::uint16_t GetLocalSystemConnectionIDPort();
  static void SetLocalSystemConnectionIDPort(std::uint16_t port);
  static std::uint32_t GetMasterSystemConnectionIDIPForDiscovery();
  static void SetMasterSystemConnectionIDIPForDiscovery(std::uint32_t address);
  static std::uint16_t GetMasterSystemConnectionIDPortForDiscovery();
  static void SetMasterSystemConnectionIDPortForDiscovery(std::uint16_t port);
  static std::uint32_t GetMasterSystemIPAddress();
  static void SetMasterSystemIPAddress(std::uint32_t address);

  /// Satellites that this master admits, 11 until Initialize reads the option; and the most that this build supports,
  /// 128. A setter lowers values above 128 to 128 and keeps negative ones. These four are real-time-safe.
  static std::int32_t GetMaxNumberSatellites();
  static void SetMaxNumberSatellites(std::int32_t number);
  static std::int32_t GetMaxNumberSatellitesSupported();
  static void SetMaxNumberSatellitesSupported(std::int32_t number);
};
