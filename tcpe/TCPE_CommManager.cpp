#include <trel/Cmn_Assert.h>
#include <trel/Cmn_NumberToText.h>
#include <trel/SPSStartupOption.h>
#include <trel/Sys_Clock.h>
#include <trel/Sys_Socket.h>
#include <trel/Sys_Umid.h>
#include <trel/TCPE_CommManager.h>
#include <trel/TCPE_CommTask.h>
#include <trel/TCPE_Command.h>

#include "foundation/Cmn_HostCall.h"
#include "foundation/Sys_Process.h"
#include "foundation/Sys_SecretFile.h"
#include "tcpe/TCPE_AdaptorChoice.h"
#include "tcpe/engine/TCPE_Engine.h"
#include "tcpe/net/TCPE_ByteTap.h"
#include "tcpe/protocol/TCPE_AuthenticationKey.h"
#include "tcpe/protocol/TCPE_Limits.h"
#include "tcpe/protocol/TCPE_Numbering.h"
#include "tcpe/protocol/TCPE_SharedKeys.h"

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

/// The numbering, whether it has been overridden, and how many hold it: one word, because it must not change between
/// looking for holders and changing it.
constexpr std::uint32_t kIsCurrentNumbering = 1;
constexpr std::uint32_t kIsOverridden = 2;
constexpr std::uint32_t kHold = 4;
std::atomic<std::uint32_t> sNumbering = kIsCurrentNumbering;

/// Changes the numbering unless it is held, or has been overridden and this is no override; tells whether it is held.
bool ChangeNumbering(bool isCurrent, std::uint32_t override) {
  std::uint32_t before = sNumbering;
  while (before < kHold && (before & kIsOverridden) <= override &&
         !sNumbering.compare_exchange_weak(before, (isCurrent ? kIsCurrentNumbering : 0) | override)) {
  }
  return before >= kHold;
}

/// The discovery port that the start-up option asks for; 0 when it does not.
std::uint16_t DiscoveryPortOption() {
  const std::int32_t port = SPSStartupOptionSInt32("DiscoveryPort", 0);
  return port > 0 && port <= 0xffff ? static_cast<std::uint16_t>(port) : std::uint16_t{0};
}

std::string PortInUseText(const char* kind, std::uint16_t port, std::uint32_t address) {
  return std::string(kind) + " port " + Cmn_UInt32ToString(port) + " of " + Sys_Socket::DecodeIPAddress(address) +
         " is in use by another program";
}

/// The keys of the shared secrets, none when none is configured.
ETCPE_Status MakeKeys(TCPE_SharedKeys* keys, bool* isMadeUp, std::string* report) {
  const std::string path = SPSStartupOptionText("SharedSecretFile", nullptr);
  if (path.empty()) {
    return eTCPE_Status_Success;
  }
  const Sys_SecretFile file(path);
  if (!file.Fault().empty()) {
    *report = file.Fault();
    return eTCPE_Status_SharedSecret;
  }
  *isMadeUp = file.IsMadeUp();
  if (*isMadeUp && SPSStartupOptionSInt32("SharedSecretIsMadeUp", 0) != 1) {
    *report = "the secret file " + path +
              " holds a secret that people made up, which can be guessed, and not 64 random digits and letters a to f; "
              "the start-up option SharedSecretIsMadeUp has it accepted";
    return eTCPE_Status_SharedSecret;
  }
  TCPE_SharedKeys::Key* key = &keys->proved;
  for (const std::span<const std::byte> secret : file.Secrets()) {
    *key = TCPE_AuthenticationKey::FromSecret(secret);
    if (*key == nullptr) {
      *report = "the cryptographic library derives no key from the shared secret";
      return eTCPE_Status_SystemError;
    }
    key = &keys->accepted;
  }
  return eTCPE_Status_Success;
}

/// Scopes of this thread within which nobody waits.
thread_local std::int32_t sNeverWaits = 0;

} // namespace

TCPE_CommManager::NeverWaits::NeverWaits() { ++sNeverWaits; }

TCPE_CommManager::NeverWaits::~NeverWaits() { --sNeverWaits; }

bool TCPE_CommManager::NeverWaits::IsInForce() { return sNeverWaits != 0; }

/// A caller that is inside: the engine stays, and Terminate waits for it to leave.
class TCPE_CommManager::Caller {
public:
  enum class Finds : std::uint8_t { running, endingToo };
  explicit Caller(const TCPE_CommManager& manager, Finds finds = Finds::running) : mManager(manager) {
    if (manager.IsInherited()) {
      return;
    }
    mIsInside = manager.TryEnter();
    if (!mIsInside) {
      const std::lock_guard lock(manager.mMutex); // held while an engine starts
      mIsInside = manager.TryEnter();
      mEndingEngine = finds == Finds::endingToo ? manager.mEndingEngine : nullptr;
    }
    mEngine = mIsInside ? manager.mEntered.load() : mEndingEngine.get();
  }
  ~Caller() {
    if (mIsInside) {
      mManager.Leave();
    }
  }
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  explicit operator bool() const { return mEngine != nullptr; }
  TCPE_Engine* operator->() const { return mEngine; }

private:
  const TCPE_CommManager& mManager;
  bool mIsInside = false;
  TCPE_Engine* mEngine = nullptr;
  std::shared_ptr<TCPE_Engine> mEndingEngine;
};

bool TCPE_CommManager::TryEnter() const {
  std::uint32_t callers = mCallers;
  while ((callers & kIsClosed) == 0) {
    if (mCallers.compare_exchange_weak(callers, callers + kCaller)) {
      return true;
    }
  }
  return false;
}

/// While it is open nobody waits for the last one, and the manager may be gone as soon as that has left.
void TCPE_CommManager::Leave() const {
  std::uint32_t callers = mCallers;
  while ((callers & kIsClosed) == 0) {
    if (mCallers.compare_exchange_weak(callers, callers - kCaller)) {
      return;
    }
  }
  const std::lock_guard lock(mMutex);
  if (mCallers.fetch_sub(kCaller) == kCaller + kIsClosed) {
    mCallersHaveLeft.notify_all();
  }
}

TCPE_CommManager::TCPE_CommManager() : mByteTap(std::make_shared<TCPE_ByteTap>()) {
  mLocalSystem.SetUniqueID(Sys_Umid::RandomPositive31());
}

TCPE_CommManager::~TCPE_CommManager() {
  if (IsInherited()) {
    Sys_Process::Abandon(std::move(mEngine));
    Sys_Process::Abandon(std::move(mEndingEngine));
    Sys_Process::Abandon(std::make_shared<std::vector<std::shared_ptr<TCPE_Engine>>>(std::move(mEnded)));
  }
  // The subclass is gone by now: whoever has one terminates before destroying it.
  Terminate();
}

bool TCPE_CommManager::IsInherited() const {
  const std::int64_t process = mProcess;
  return process != 0 && process != Sys_Process::Identifier();
}

std::int32_t TCPE_CommManager::InitializeSubclass() { return 0; }

void TCPE_CommManager::TerminateSubclass() {}

TCPE_CommTask* TCPE_CommManager::CreateCommTask(std::uint16_t /*communicationPort*/, std::uint16_t /*discoveryPort*/,
                                                TCPE_System* /*localSystem*/) {
  return nullptr;
}

std::int32_t TCPE_CommManager::GetDiscoveryPort() { return mDiscoveryPort; }

std::int32_t TCPE_CommManager::GetCommunicationPort() { return mCommunicationPort; }

bool TCPE_CommManager::HandleSyncCommand(TCPE_Command* /*command*/) { return false; }

bool TCPE_CommManager::HandleAsyncCommand(TCPE_Command* /*command*/) { return false; }

bool TCPE_CommManager::AllowConnect(std::uint32_t /*address*/) { return true; }

bool TCPE_CommManager::IsAvailable() {
  const Caller caller(*this);
  if (!caller) {
    return false;
  }
  return IsSatellite() ? caller->GetConnectedAddresses().empty()
                       : AllowSatellitesToConnectToMasterSystem() && !caller->IsFull();
}

void TCPE_CommManager::PeerConnected(std::uint32_t /*address*/, std::uint64_t /*instance*/, ETCPE_SystemType /*type*/) {
}

bool TCPE_CommManager::GetSupportsMarlo11() {
  return (sNumbering.load(std::memory_order_relaxed) & kIsCurrentNumbering) != 0;
}

void TCPE_CommManager::SetSupportsMarlo11(bool supports) {
  const bool isHeld = ChangeNumbering(supports, kIsOverridden);
  Cmn_Assert::HandleMagicAssert(!isHeld, "! isHeld@$^$@..\\TCPE_CommManager", __LINE__);
}

void TCPE_CommManager::ReadNumberingOption() { ChangeNumbering(SPSStartupOptionSInt32("SupportsMarlo11", 1) != 0, 0); }

void TCPE_CommManager::HoldNumbering() { sNumbering += kHold; }

void TCPE_CommManager::ReleaseNumbering() { sNumbering -= kHold; }

std::int32_t TCPE_CommManager::Initialize(TCPE_CommPreferences* preferences, NetworkErrorProc onNetworkError) {
  if (IsInherited()) {
    return eTCPE_Status_AlreadyInitialized;
  }
  const std::lock_guard lifecycle(mLifecycleMutex);
  std::string report;
  const std::int32_t status = Start(preferences, onNetworkError, &report);
  const std::lock_guard lock(mMutex);
  mInitializationReport = std::move(report);
  return status;
}

std::int32_t TCPE_CommManager::Start(TCPE_CommPreferences* preferences, NetworkErrorProc onNetworkError,
                                     std::string* report) {
  if (IsInitialized()) {
    *report = "the engine is initialised already";
    return eTCPE_Status_AlreadyInitialized;
  }
  const std::uint32_t preferred = preferences != nullptr ? preferences->GetLocalInterfaceAddress() : 0;
  const TCPE_AdaptorChoice adaptor = TCPE_AdaptorChoice::Make(preferred, Sys_Socket::GetAdaptors());
  *report = adaptor.report;
  if (adaptor.status != eTCPE_Status_Success) {
    return adaptor.status;
  }
  TCPE_SharedKeys keys;
  bool isSecretMadeUp = false;
  if (const ETCPE_Status secret = MakeKeys(&keys, &isSecretMadeUp, report); secret != eTCPE_Status_Success) {
    return secret;
  }
  mCommunicationPort = preferences != nullptr ? preferences->GetCommunicationPort() : std::uint16_t{0};
  mDiscoveryPort = DiscoveryPortOption();
  const auto communicationPort = static_cast<std::uint16_t>(GetCommunicationPort());
  const auto discoveryPort = static_cast<std::uint16_t>(GetDiscoveryPort());

  HoldNumbering();
  std::unique_ptr<TCPE_CommTask> task;
  Cmn_HostCall::Run(Cmn_HostCall::Kind::hook, [&] {
    InitializeSubclass();
    task.reset(CreateCommTask(communicationPort, discoveryPort, &mLocalSystem));
  });
  ETCPE_Status status = eTCPE_Status_NoCommTask;
  if (task) {
    SetUpLocalSystem(adaptor.address, communicationPort, *task);
    mAdaptorIPAddress = adaptor.address;
    TCPE_Limits limits;
    constexpr TCPE_Time kMicrosecondsPerMillisecond = 1000;
    limits.reply =
        kMicrosecondsPerMillisecond *
        std::max(1, SPSStartupOptionSInt32("SynchronousTimeoutMilliseconds",
                                           static_cast<std::int32_t>(limits.reply / kMicrosecondsPerMillisecond)));
    constexpr TCPE_Time kMicrosecondsPerSecond = 1'000'000;
    limits.authenticationFailure =
        kMicrosecondsPerSecond *
        std::max(1, SPSStartupOptionSInt32(
                        "AuthenticationFailureSeconds",
                        static_cast<std::int32_t>(limits.authenticationFailure / kMicrosecondsPerSecond)));
    const std::shared_ptr<TCPE_Engine> engine = std::make_shared<TCPE_Engine>(
        TCPE_Engine::Setup{.manager = this,
                           .task = std::move(task),
                           .limits = limits,
                           .localAddress = adaptor.address,
                           .adaptorName = adaptor.name,
                           .broadcastAddress = adaptor.broadcast,
                           .keys = std::move(keys),
                           .isSecretMadeUp = isSecretMadeUp,
                           .onNetworkError = onNetworkError,
                           .byteTap = mByteTap,
                           .answersDiscovery = SPSStartupOptionSInt32("AnswersDiscovery", 1) != 0});
    const std::lock_guard lock(mMutex); // a handler that runs before Start returns waits here until it finds the engine
    mProcess = Sys_Process::Identifier();
    // Taken here, from where on who sets them finds the engine.
    engine->SetCommandLog(mCommandLog);
    engine->SetLocalSystemType(mLocalSystem.GetSystemType());
    engine->SetHostPumpedDelivery(mHostPumped);
    status = engine->Start();
    if (status == eTCPE_Status_Success) {
      mPreferredAddress = preferred;
      mBroadcastAddress = adaptor.broadcast;
      mAdaptorCheckIsDue = 0;
      mEngine = engine;
      mEntered = engine.get();
      mCallers -= kIsClosed;
      return status;
    }
    mProcess = 0;
  }
  switch (status) {
  case eTCPE_Status_PortInUse:
    *report = PortInUseText("TCP", communicationPort, adaptor.address);
    break;
  case eTCPE_Status_DiscoveryPortInUse:
    *report = PortInUseText("UDP", discoveryPort, adaptor.address);
    break;
  case eTCPE_Status_NoCommTask:
    *report = "the host gave no communication task";
    break;
  default:
    *report = "the operating system refused a thread or a socket; " + Sys_Socket::DecodeIPAddress(adaptor.address) +
              ", TCP port " + Cmn_UInt32ToString(communicationPort) + ", UDP port " + Cmn_UInt32ToString(discoveryPort);
  }
  mAdaptorIPAddress = 0;
  Cmn_HostCall::Run(Cmn_HostCall::Kind::hook, [this] { TerminateSubclass(); });
  ReleaseNumbering();
  return status;
}

std::string TCPE_CommManager::GetInitializationReport() const {
  const std::lock_guard lock(mMutex);
  return mInitializationReport;
}

bool TCPE_CommManager::IsInitialized() const {
  if (IsInherited()) {
    return false;
  }
  const std::lock_guard lock(mMutex);
  return mEngine != nullptr;
}

void TCPE_CommManager::Terminate() {
  if (IsInherited()) {
    return;
  }
  std::shared_ptr<TCPE_Engine> engine;
  {
    const std::lock_guard lock(mMutex);
    engine = mEngine ? mEngine : mEndingEngine;
  }
  const bool isOutside = !engine || !engine->IsOnOwnThread();
  Cmn_Assert::HandleMagicAssert(isOutside, "! engine->IsOnOwnThread()@$^$@..\\TCPE_CommManager", __LINE__);
  if (!isOutside) {
    return;
  }
  const std::lock_guard lifecycle(mLifecycleMutex);
  {
    const std::lock_guard lock(mMutex);
    if (mEngine != engine || !engine) {
      return;
    }
    mCallers += kIsClosed;
    mEndingEngine = std::move(mEngine);
    mEngine.reset();
  }
  engine->Stop();
  std::vector<std::shared_ptr<TCPE_Engine>> ended; // outside the lock
  {
    // Bounded, because a caller may be inside a callback of the host.
    constexpr auto kPatience = std::chrono::milliseconds(200);
    std::unique_lock lock(mMutex);
    mEnded.push_back(std::move(mEndingEngine));
    mEndingEngine.reset();
    if (mCallersHaveLeft.wait_for(lock, kPatience, [this] { return mCallers == kIsClosed; })) {
      ended.swap(mEnded);
    }
    mProcess = 0;
  }
  mAdaptorIPAddress = 0;
  Cmn_HostCall::Run(Cmn_HostCall::Kind::hook, [this] { TerminateSubclass(); });
  ReleaseNumbering();
}

void TCPE_CommManager::DoIdle() {
  constexpr std::int64_t kLookEvery = 1'000'000;
  const std::int64_t now = Sys_Clock::RawMicroseconds();
  std::int64_t due = mAdaptorCheckIsDue;
  if (now >= due && mAdaptorCheckIsDue.compare_exchange_strong(due, now + kLookEvery)) {
    LookAfterAdaptor();
  }
}

void TCPE_CommManager::LookAfterAdaptor() {
  const std::unique_lock lifecycle(mLifecycleMutex, std::try_to_lock);
  const Caller caller(*this);
  std::vector<Sys_Adaptor> adaptors;
  if (!lifecycle || !caller || !Sys_Socket::ReadAdaptors(&adaptors)) {
    return;
  }
  const TCPE_AdaptorChoice inUse{
      .name = {}, .address = mAdaptorIPAddress, .broadcast = mBroadcastAddress, .report = {}};
  const TCPE_AdaptorChoice choice = TCPE_AdaptorChoice::Follow(inUse, mPreferredAddress, adaptors);
  if (choice == inUse && (caller->IsListening() || choice.address == 0)) {
    return;
  }
  mAdaptorIPAddress = choice.address;
  mBroadcastAddress = choice.broadcast;
  {
    const std::lock_guard lock(mMutex);
    mLocalSystem.SetIPAddress(choice.address);
  }
  caller->MoveTo(choice.address, choice.broadcast, choice.name);
}

bool TCPE_CommManager::Connect(std::uint32_t address) {
  const Caller caller(*this);
  return caller && caller->Connect(address);
}

bool TCPE_CommManager::Disconnect(std::uint32_t address) {
  const Caller caller(*this);
  return caller && caller->Disconnect(address);
}

bool TCPE_CommManager::IsConnected(std::uint32_t address) const {
  const Caller caller(*this);
  return caller && caller->IsConnected(address);
}

std::set<std::uint32_t> TCPE_CommManager::GetConnectedAddresses() const {
  const Caller caller(*this);
  return caller ? caller->GetConnectedAddresses() : std::set<std::uint32_t>();
}

std::uint64_t TCPE_CommManager::GetPeerInstance(std::uint32_t address) const {
  const Caller caller(*this);
  return caller ? caller->GetPeerInstance(address) : 0;
}

std::uint64_t TCPE_CommManager::GetConnection(std::uint32_t address) const {
  const Caller caller(*this);
  return caller ? caller->GetConnection(address) : 0;
}

std::map<std::uint32_t, std::uint64_t> TCPE_CommManager::GetConnections() const {
  const Caller caller(*this);
  return caller ? caller->GetConnections() : std::map<std::uint32_t, std::uint64_t>();
}

void TCPE_CommManager::SendCommand(TCPE_Command* command) {
  if (command == nullptr) {
    return;
  }
  const Caller caller(*this);
  if (caller) {
    caller->SendCommand(*command);
  } else {
    command->SetError(eTCPE_CommErr_NotInitialized);
    if (command->IsSynchronous()) {
      command->SetCommandType(GetSupportsMarlo11() ? kTCPE_CurrentErrorIdentifier : kTCPE_LegacyErrorIdentifier);
    }
  }
}

std::vector<TCPE_CommErr> TCPE_CommManager::SendCommandToAll(TCPE_Command* command,
                                                             std::span<const std::uint32_t> addresses,
                                                             const ReplyProc& onReply) {
  const Caller caller(*this);
  if (command == nullptr || !caller) {
    return std::vector<TCPE_CommErr>(addresses.size(), eTCPE_CommErr_NotInitialized);
  }
  return caller->SendCommandToAll(*command, addresses, onReply);
}

TCPE_Command* TCPE_CommManager::TakeCommand() {
  const Caller caller(*this);
  return caller ? caller->TakeCommand() : nullptr;
}

void TCPE_CommManager::DisposeCommand(TCPE_Command* command) {
  if (const Caller caller(*this, Caller::Finds::endingToo); caller) {
    caller->DisposeCommand(command);
  } else {
    TCPE_Engine::DisposeOrphan(command);
  }
}

void TCPE_CommManager::PreProcessConnectionCommands(TCPE_Command* /*command*/) {}

void TCPE_CommManager::SetHostPumpedDelivery(bool hostPumped) {
  const std::lock_guard lock(mMutex);
  mHostPumped = hostPumped;
}

void TCPE_CommManager::NetworkErrorOccured(ENetworkError error, std::uint32_t address) {
  if (const Caller caller(*this); caller) {
    caller->NetworkErrorOccured(error, address);
  }
}

bool TCPE_CommManager::GetAuthenticationFailed(std::uint32_t address) const {
  const Caller caller(*this);
  return caller && caller->GetAuthenticationFailed(address);
}

bool TCPE_CommManager::SendDiscoverMasterSystemsCommand(Sys_UDPSocket* socket, std::uint32_t address) {
  const Caller caller(*this);
  return caller && caller->SendDiscoveryQuery(*socket, TCPE_DiscoveryCodec::Kind::masters, address);
}

bool TCPE_CommManager::SendDiscoveryRequestCommand(Sys_UDPSocket* socket, std::uint32_t address) {
  const Caller caller(*this);
  return caller && caller->SendDiscoveryQuery(*socket, TCPE_DiscoveryCodec::Kind::satellites, address);
}

bool TCPE_CommManager::ReceiveDiscoverMasterSystemsReply(Sys_UDPSocket* socket, std::int32_t* remainingMilliseconds,
                                                         std::string* hostName, std::string* systemName,
                                                         std::uint32_t* address, ETCPE_SystemType* systemType,
                                                         std::uint8_t* majorVersion, std::uint8_t* minorVersion,
                                                         bool* isAvailable) {
  return ReceiveDiscoveryReply(true, socket, remainingMilliseconds, hostName, systemName, address, systemType,
                               majorVersion, minorVersion, isAvailable);
}

bool TCPE_CommManager::ReceiveDiscoveryRequestReply(Sys_UDPSocket* socket, std::int32_t* remainingMilliseconds,
                                                    std::string* hostName, std::string* systemName,
                                                    std::uint32_t* address, ETCPE_SystemType* systemType,
                                                    std::uint8_t* majorVersion, std::uint8_t* minorVersion,
                                                    bool* isAvailable) {
  return ReceiveDiscoveryReply(false, socket, remainingMilliseconds, hostName, systemName, address, systemType,
                               majorVersion, minorVersion, isAvailable);
}

bool TCPE_CommManager::ReceiveDiscoveryReply(bool ofMaster, Sys_UDPSocket* socket, std::int32_t* remainingMilliseconds,
                                             std::string* hostName, std::string* systemName, std::uint32_t* address,
                                             ETCPE_SystemType* systemType, std::uint8_t* majorVersion,
                                             std::uint8_t* minorVersion, bool* isAvailable) {
  const Caller caller(*this);
  const auto kind = ofMaster ? TCPE_DiscoveryCodec::Kind::masters : TCPE_DiscoveryCodec::Kind::satellites;
  TCPE_DiscoveryCodec::Reply reply;
  if (!caller) {
    *remainingMilliseconds = 0;
    return false;
  }
  if (!caller->ReceiveDiscoveryReply(*socket, kind, remainingMilliseconds, &reply)) {
    return false;
  }
  *hostName = reply.system.GetHostName();
  *systemName = reply.system.GetSystemName();
  *address = reply.system.GetIPAddress();
  *systemType = reply.system.GetSystemType();
  *majorVersion = reply.system.GetMajorVersion();
  *minorVersion = reply.system.GetMinorVersion();
  *isAvailable = reply.isAvailable;
  return true;
}

TCPE_Counters TCPE_CommManager::GetCounters() const {
  const Caller caller(*this);
  return caller ? caller->GetCounters() : TCPE_Counters();
}

TCPE_EngineSnapshot TCPE_CommManager::GetSnapshot() const {
  const Caller caller(*this);
  return caller ? caller->GetSnapshot() : TCPE_EngineSnapshot();
}

void TCPE_CommManager::SetPeerName(std::uint32_t address, const char* name) {
  if (const Caller caller(*this); caller) {
    caller->SetPeerName(address, name);
  }
}

void TCPE_CommManager::SetCommandLog(CommandLogProc log) {
  const std::lock_guard lock(mMutex);
  mCommandLog = log;
  if (mEngine && !IsInherited()) {
    mEngine->SetCommandLog(log);
  }
}

void TCPE_CommManager::SetByteTap(TCPE_ByteTapProc tap, void* context) { mByteTap->Set(tap, context); }

ETCPE_SystemType TCPE_CommManager::GetSystemType() const {
  const std::lock_guard lock(mMutex);
  return mLocalSystem.GetSystemType();
}

void TCPE_CommManager::SetSystemType(ETCPE_SystemType type) {
  const std::lock_guard lock(mMutex);
  mLocalSystem.SetSystemType(type);
  if (mEngine && !IsInherited()) {
    mEngine->SetLocalSystemType(type);
  }
}

const char* TCPE_CommManager::GetSystemName() const {
  const std::lock_guard lock(mMutex);
  TCPE_System& copy = mHandedOut[std::this_thread::get_id()];
  copy.SetSystemName(mLocalSystem.GetSystemName());
  return copy.GetSystemName();
}

void TCPE_CommManager::SetSystemName(const char* name) {
  const std::lock_guard lock(mMutex);
  mLocalSystem.SetSystemName(name);
}

std::int32_t TCPE_CommManager::GetUniqueID() const {
  const std::lock_guard lock(mMutex);
  return mLocalSystem.GetUniqueID();
}

void TCPE_CommManager::SetUniqueID(std::int32_t identifier) {
  const std::lock_guard lock(mMutex);
  mLocalSystem.SetUniqueID(identifier);
}

TCPE_System TCPE_CommManager::CopyLocalSystem() const {
  const std::lock_guard lock(mMutex);
  return mLocalSystem;
}

void TCPE_CommManager::SetUpLocalSystem(std::uint32_t address, std::uint16_t port, TCPE_CommTask& task) {
  const std::string hostName = Sys_Socket::GetHostName();
  const std::uint8_t majorVersion = task.GetCurrentProtocolMajorVersion();
  const std::uint8_t minorVersion = task.GetCurrentProtocolMinorVersion();
  const std::lock_guard lock(mMutex);
  mLocalSystem.SetHostName(hostName.c_str());
  if (mLocalSystem.GetSystemName()[0] == '\0') {
    mLocalSystem.SetSystemName(hostName.c_str());
  }
  mLocalSystem.SetIPAddress(address);
  mLocalSystem.SetPort(port);
  mLocalSystem.SetMajorVersion(majorVersion);
  mLocalSystem.SetMinorVersion(minorVersion);
}
