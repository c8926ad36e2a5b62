#include <trel/Trel_CommManager.h>

#include "foundation/Sys_Process.h"
#include "link/clock/Trel_Trace.h"
#include "link/engine/Trel_ClockLockReport.h"

#include <trel/Cmn_Assert.h>
#include <trel/SPSStartupOption.h>
#include <trel/Sys_Socket.h>
#include <trel/Sys_UDPSocket.h>
#include <trel/Trel_CorrelatedClockMgr.h>
#include <trel/Trel_Messenger.h>
#include <trel/Trel_TCPEInterface.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <new>
#include <optional>

namespace {

constexpr std::int32_t kMostSatellites = 128;

struct State {
  std::mutex mMutex; // guards the engine object's pointer and the count; held for no call that can wait
  // Every call holds a reference of its own, so that the object outlives a Terminate on another thread.
  std::shared_ptr<Trel_TCPEInterface> sTCPEInterface;
  std::int32_t mInitializing = 0;
  std::atomic<std::int64_t> mProcess = 0; // that has initialised it; 0: none yet

  Trel_ClockLockReport mClockLockReport;
};

// Never destroyed, so that threads which outlive the static objects find it whole.
State& TheState() {
  static auto* const state = new State;
  return *state;
}

// The record inside the engine object: every command's constructor asks for it.
constinit std::atomic<TCPE_System*> sLocalSystem{nullptr};
constinit std::atomic<std::int32_t> mMaxNumberSatellites{11};
constinit std::atomic<std::int32_t> mMaxNumberSatellitesSupported{kMostSatellites};

void AssertThereIs(const std::shared_ptr<Trel_TCPEInterface>& sTCPEInterface, std::int32_t line) {
  Cmn_Assert::HandleMagicAssert(sTCPEInterface != nullptr, R"(sTCPEInterface != 0@$^$@..\Trel_CommManager)", line);
}

// Made, and thrown away when another thread was faster, outside the lock.
std::shared_ptr<Trel_TCPEInterface> CreateTCPEInterface(State& state) {
  const std::shared_ptr<Trel_TCPEInterface> made(new (std::nothrow) Trel_TCPEInterface);
  std::shared_ptr<Trel_TCPEInterface> sTCPEInterface;
  {
    const std::lock_guard lock(state.mMutex);
    if (made && !state.sTCPEInterface) {
      state.sTCPEInterface = made;
      sLocalSystem.store(made->GetLocalSystem(), std::memory_order_release);
    }
    sTCPEInterface = state.sTCPEInterface;
  }
  AssertThereIs(sTCPEInterface, __LINE__);
  return sTCPEInterface;
}

// With the mutex held.
void FreeTCPEInterface(State& state) {
  sLocalSystem.store(nullptr, std::memory_order_release);
  state.sTCPEInterface.reset();
}

std::shared_ptr<Trel_TCPEInterface> TCPEInterface() {
  State& state = TheState();
  std::shared_ptr<Trel_TCPEInterface> sTCPEInterface;
  {
    const std::lock_guard lock(state.mMutex);
    sTCPEInterface = state.sTCPEInterface;
  }
  if (!sTCPEInterface) {
    sTCPEInterface = CreateTCPEInterface(state);
    AssertThereIs(sTCPEInterface, __LINE__);
  }
  return sTCPEInterface;
}

/// Keeps the engine object in place while it is being initialised.
class Initializing {
public:
  Initializing() : mState(TheState()) {
    const std::lock_guard lock(mState.mMutex);
    ++mState.mInitializing;
  }
  ~Initializing() {
    const std::lock_guard lock(mState.mMutex);
    --mState.mInitializing;
  }
  Initializing(const Initializing&) = delete;
  Initializing& operator=(const Initializing&) = delete;

private:
  State& mState;
};

/// Terminates the engine when the library is unloaded or the process ends.
struct Terminator {
  Terminator() { Sys_Process::ThreadsHaveStarted(); }
  ~Terminator() {
    if (Sys_Process::CanJoinWhenUnloaded()) {
      Trel_CommManager::Terminate();
    }
  }
  Terminator(const Terminator&) = delete;
  Terminator& operator=(const Terminator&) = delete;
};

using SystemList = std::map<Trel_System, bool>;
using ReceiveReply = decltype(&TCPE_CommManager::ReceiveDiscoveryRequestReply);

constexpr std::int32_t kReplyWait = 1000;     // ms
constexpr std::int32_t kShortReplyWait = 300; // ms, for who asks again and again

bool OpenQuerySocket(Sys_UDPSocket& socket) {
  return socket.Register() && socket.SetReuseAddress(true) && socket.SetReusePort(true);
}

bool ReceiveSystem(TCPE_CommManager& engine, ReceiveReply receive, Sys_UDPSocket& socket, std::int32_t* wait,
                   Trel_System* system, bool* isAvailable) {
  std::string hostName;
  std::string systemName;
  std::uint32_t address = 0;
  ETCPE_SystemType systemType = eTCPE_SystemType_None;
  std::uint8_t majorVersion = 0;
  std::uint8_t minorVersion = 0;
  if (!(engine.*receive)(&socket, wait, &hostName, &systemName, &address, &systemType, &majorVersion, &minorVersion,
                         isAvailable)) {
    return false;
  }
  system->SetHostName(hostName.c_str());
  system->SetSystemName(systemName.c_str());
  system->SetIPAddress(address);
  system->SetSystemType(systemType);
  system->SetMajorVersion(majorVersion);
  system->SetMinorVersion(minorVersion);
  return true;
}

template <class Send>
void CollectSystems(TCPE_CommManager& engine, Send send, ReceiveReply receive, SystemList* list,
                    std::int32_t wait = kReplyWait) {
  Sys_UDPSocket socket;
  if (!OpenQuerySocket(socket) || !socket.Bind(engine.GetAdaptorIPAddress(), 0) || !socket.AllocateReplyAddress() ||
      !send(socket)) {
    return;
  }
  while (wait > 0) {
    Trel_System system;
    bool isAvailable = false;
    if (ReceiveSystem(engine, receive, socket, &wait, &system, &isAvailable)) {
      list->emplace(system, isAvailable);
    }
  }
}

void TraceFlag(const char* format, bool flag) { Trel_Trace::Line(format, flag ? "true" : "false"); }

} // namespace

std::int32_t Trel_CommManager::Initialize(Trel_CommPreferences* prefs,
                                          TCPE_CommManager::NetworkErrorProc onNetworkError) {
  Trel_Trace::Line("Trel_CommManager::Initialize\n");
  TheState().mClockLockReport.Forget();
  SetMaxNumberSatellites(SPSStartupOptionSInt32("MaxNumberSatellites", 11));
  const Initializing initializing;
  const std::int32_t status =
      TCPEInterface()->Initialize(prefs != nullptr ? prefs : Trel_CommPreferences::Inst(), onNetworkError);
  if (status == eTCPE_Status_Success) {
    TheState().mProcess = Sys_Process::Identifier();
  }
  // Made when everything that the engine uses has been, so that it goes before any of that does.
  static const Terminator terminator;
  return status;
}

std::string Trel_CommManager::GetInitializationReport() { return TCPEInterface()->GetInitializationReport(); }

bool Trel_CommManager::IsInitialized() { return TCPEInterface()->IsInitialized(); }

void Trel_CommManager::Terminate() {
  State& state = TheState();
  if (const std::int64_t process = state.mProcess; process != 0 && process != Sys_Process::Identifier()) {
    return; // the engine of another process: not even its locks can be trusted here
  }
  const std::shared_ptr<Trel_TCPEInterface> engine = TCPEInterface();
  engine->Terminate();
  const std::lock_guard lock(state.mMutex);
  // It stays when the engine refused to terminate, and when another thread initialises it again.
  if (state.sTCPEInterface == engine && state.mInitializing == 0 && !engine->IsInitialized()) {
    FreeTCPEInterface(state); // `engine` still refers to it, so that it is destroyed outside the lock
  }
}

void Trel_CommManager::DoIdle() {
  const std::shared_ptr<Trel_TCPEInterface> engine = TCPEInterface();
  if (engine->IsInitialized()) {
    engine->DoIdle();
  }
  const TCPE_CommManager::NeverWaits neverWaits;
  TheState().mClockLockReport.Run(
      [&engine]() -> std::optional<Trel_ClockLockReport::State> {
        if (engine->IsMasterClock()) {
          return std::nullopt;
        }
        // In this order: who connects meanwhile may empty the clock, and is not told of a lock that was another's.
        Trel_ClockLockReport::State state{.connections = engine->GetConnections()};
        state.isLocked = Trel_CorrelatedClockMgr::IsLocked();
        return state;
      },
      &Trel_Messenger::ClockLockState);
}

bool Trel_CommManager::Connect(std::uint32_t address) { return TCPEInterface()->Connect(address); }

bool Trel_CommManager::Disconnect(std::uint32_t address) { return TCPEInterface()->Disconnect(address); }

bool Trel_CommManager::IsConnected(std::uint32_t address) { return TCPEInterface()->IsConnected(address); }

std::set<std::uint32_t> Trel_CommManager::GetConnectedAddresses() { return TCPEInterface()->GetConnectedAddresses(); }

std::uint64_t Trel_CommManager::GetPeerInstance(std::uint32_t address) {
  return TCPEInterface()->GetPeerInstance(address);
}

std::uint64_t Trel_CommManager::GetConnection(std::uint32_t address) { return TCPEInterface()->GetConnection(address); }

void Trel_CommManager::SendCommand(TCPE_Command* command) { TCPEInterface()->SendCommand(command); }

std::vector<TCPE_CommErr> Trel_CommManager::SendCommandToAll(TCPE_Command* command,
                                                             std::span<const std::uint32_t> addresses,
                                                             const TCPE_CommManager::ReplyProc& onReply) {
  return TCPEInterface()->SendCommandToAll(command, addresses, onReply);
}

TCPE_Command* Trel_CommManager::TakeCommand() { return TCPEInterface()->TakeCommand(); }

void Trel_CommManager::DisposeCommand(TCPE_Command* command) { TCPEInterface()->DisposeCommand(command); }

void Trel_CommManager::PreProcessConnectionCommands(TCPE_Command* command) {
  TCPEInterface()->PreProcessConnectionCommands(command);
}

void Trel_CommManager::SetHostPumpedDelivery(bool hostPumped) { TCPEInterface()->SetHostPumpedDelivery(hostPumped); }

void Trel_CommManager::SetCommandLog(TCPE_CommManager::CommandLogProc log) { TCPEInterface()->SetCommandLog(log); }

void Trel_CommManager::SetByteTap(TCPE_ByteTapProc tap, void* context) { TCPEInterface()->SetByteTap(tap, context); }

void Trel_CommManager::NetworkErrorOccured(TCPE_CommManager::ENetworkError error, std::uint32_t address) {
  TCPEInterface()->NetworkErrorOccured(error, address);
}

bool Trel_CommManager::GetAuthenticationFailed(std::uint32_t address) {
  return TCPEInterface()->GetAuthenticationFailed(address);
}

TCPE_EngineSnapshot Trel_CommManager::GetSnapshot() { return TCPEInterface()->GetSnapshot(); }

void Trel_CommManager::SetPeerName(std::uint32_t address, const char* name) {
  TCPEInterface()->SetPeerName(address, name);
}

void Trel_CommManager::GetMasterSystemsList(SystemList* list) {
  const std::shared_ptr<Trel_TCPEInterface> engine = TCPEInterface();
  if (!engine->IsSatellite()) {
    return;
  }
  CollectSystems(
      *engine, [&engine](Sys_UDPSocket& socket) { return engine->SendDiscoverMasterSystemsCommand(&socket, 0); },
      &TCPE_CommManager::ReceiveDiscoverMasterSystemsReply, list);
}

void Trel_CommManager::GetOtherMastersList(SystemList* list) {
  const std::shared_ptr<Trel_TCPEInterface> engine = TCPEInterface();
  if (engine->IsSatellite()) {
    return;
  }
  CollectSystems(
      *engine, [&engine](Sys_UDPSocket& socket) { return engine->SendDiscoverMasterSystemsCommand(&socket, 0); },
      &TCPE_CommManager::ReceiveDiscoverMasterSystemsReply, list, kShortReplyWait);
  std::erase_if(*list, [](const auto& entry) { return entry.first.GetSystemType() != eTCPE_SystemType_Master; });
}

void Trel_CommManager::GetSatelliteList(SystemList* list) {
  const std::shared_ptr<Trel_TCPEInterface> engine = TCPEInterface();
  if (engine->IsSatellite()) {
    return;
  }
  CollectSystems(
      *engine, [&engine](Sys_UDPSocket& socket) { return engine->SendDiscoveryRequestCommand(&socket, 0); },
      &TCPE_CommManager::ReceiveDiscoveryRequestReply, list);
  std::erase_if(*list,
                [&engine](const auto& entry) { return engine->GetAuthenticationFailed(entry.first.GetIPAddress()); });
}

bool Trel_CommManager::VerifySatelliteIsAvailable(std::uint32_t address, Trel_System* system) {
  const std::shared_ptr<Trel_TCPEInterface> engine = TCPEInterface();
  if (engine->IsSatellite()) {
    return false;
  }
  Sys_UDPSocket socket;
  if (!OpenQuerySocket(socket) || !socket.AllocateReplyAddress() ||
      !engine->SendDiscoveryRequestCommand(&socket, address)) {
    return false;
  }
  std::int32_t wait = kReplyWait;
  bool isAvailable = false;
  return ReceiveSystem(*engine, &TCPE_CommManager::ReceiveDiscoveryRequestReply, socket, &wait, system, &isAvailable) &&
         system->GetIPAddress() == address && isAvailable;
}

bool Trel_CommManager::IsSatellite() { return TCPEInterface()->IsSatellite(); }

void Trel_CommManager::SetIsSatellite(bool isSatellite) {
  TraceFlag("Trel_CommManager::SetIsSatellite %s", isSatellite);
  TCPEInterface()->SetIsSatellite(isSatellite);
}

bool Trel_CommManager::AllowSatellitesToConnectToMasterSystem() {
  return TCPEInterface()->AllowSatellitesToConnectToMasterSystem();
}

void Trel_CommManager::SetAllowSatellitesToConnectToMasterSystem(bool allow) {
  TCPEInterface()->SetAllowSatellitesToConnectToMasterSystem(allow);
}

bool Trel_CommManager::IsMasterClock() { return TCPEInterface()->IsMasterClock(); }

void Trel_CommManager::SetIsMasterClock(bool isMasterClock) {
  TraceFlag("Trel_CommManager::SetIsMasterClock %s", isMasterClock);
  TCPEInterface()->SetIsMasterClock(isMasterClock);
}

ETCPE_SystemType Trel_CommManager::GetSystemType() { return TCPEInterface()->GetSystemType(); }

void Trel_CommManager::SetSystemType(ETCPE_SystemType type) { TCPEInterface()->SetSystemType(type); }

const char* Trel_CommManager::GetSystemName() { return TCPEInterface()->GetSystemName(); }

void Trel_CommManager::SetSystemName(const char* name) { TCPEInterface()->SetSystemName(name); }

std::int32_t Trel_CommManager::GetUniqueID() { return TCPEInterface()->GetUniqueID(); }

void Trel_CommManager::SetUniqueID(std::int32_t identifier) { TCPEInterface()->SetUniqueID(identifier); }

TCPE_System* Trel_CommManager::GetLocalSystem() {
  TCPE_System* system = sLocalSystem.load(std::memory_order_acquire);
  return system != nullptr ? system : TCPEInterface()->GetLocalSystem();
}

bool Trel_CommManager::GetSupportsMarlo11() {
  TCPEInterface();
  return TCPE_CommManager::GetSupportsMarlo11();
}

std::int32_t Trel_CommManager::GetDiscoveryPort() { return TCPEInterface()->GetDiscoveryPort(); }

std::int32_t Trel_CommManager::GetCommunicationPort() { return TCPEInterface()->GetCommunicationPort(); }

std::uint32_t Trel_CommManager::GetAdaptorIPAddress() { return TCPEInterface()->GetAdaptorIPAddress(); }

std::uint32_t Trel_CommManager::GetLocalSystemConnectionIDIP() {
  return TCPEInterface()->GetLocalSystemConnectionIDIP();
}

void Trel_CommManager::SetLocalSystemConnectionIDIP(std::uint32_t address) {
  TCPEInterface()->SetLocalSystemConnectionIDIP(address);
}

std::uint16_t Trel_CommManager::GetLocalSystemConnectionIDPort() {
  return TCPEInterface()->GetLocalSystemConnectionIDPort();
}

void Trel_CommManager::SetLocalSystemConnectionIDPort(std::uint16_t port) {
  TCPEInterface()->SetLocalSystemConnectionIDPort(port);
}

std::uint32_t Trel_CommManager::GetMasterSystemConnectionIDIPForDiscovery() {
  return TCPEInterface()->GetMasterSystemConnectionIDIPForDiscovery();
}

void Trel_CommManager::SetMasterSystemConnectionIDIPForDiscovery(std::uint32_t address) {
  TCPEInterface()->SetMasterSystemConnectionIDIPForDiscovery(address);
}

std::uint16_t Trel_CommManager::GetMasterSystemConnectionIDPortForDiscovery() {
  return TCPEInterface()->GetMasterSystemConnectionIDPortForDiscovery();
}

void Trel_CommManager::SetMasterSystemConnectionIDPortForDiscovery(std::uint16_t port) {
  TCPEInterface()->SetMasterSystemConnectionIDPortForDiscovery(port);
}

std::uint32_t Trel_CommManager::GetMasterSystemIPAddress() { return TCPEInterface()->GetMasterSystemIPAddress(); }

void Trel_CommManager::SetMasterSystemIPAddress(std::uint32_t address) {
  if (Trel_Trace::IsUsable()) {
    Trel_Trace::Line("Trel_CommManager::SetMasterSystemIPAddress %s", Sys_Socket::DecodeIPAddress(address).c_str());
  }
  TCPEInterface()->SetMasterSystemIPAddress(address);
}

std::int32_t Trel_CommManager::GetMaxNumberSatellites() { return mMaxNumberSatellites.load(std::memory_order_relaxed); }

void Trel_CommManager::SetMaxNumberSatellites(std::int32_t number) {
  mMaxNumberSatellites.store(std::min(number, kMostSatellites), std::memory_order_relaxed);
}

std::int32_t Trel_CommManager::GetMaxNumberSatellitesSupported() {
  return mMaxNumberSatellitesSupported.load(std::memory_order_relaxed);
}

void Trel_CommManager::SetMaxNumberSatellitesSupported(std::int32_t number) {
  mMaxNumberSatellitesSupported.store(std::min(number, kMostSatellites), std::memory_order_relaxed);
}
