#include "tcpe/net/TCPE_RunningEngine.h"

#include "tcpe/protocol/TCPE_AuthenticationKey.h"

#include <trel/Sys_Clock.h>
#include <trel/Sys_Umid.h>
#include <trel/TCPE_Cmd_Disconnect.h>
#include <trel/TCPE_Command.h>

#include <algorithm>
#include <chrono>
#include <new>
#include <system_error>
#include <utility>

namespace {

/// What the host is told when a peer refuses to be connected; none for failures that are no refusal.
ETCPE_NetworkError RefusalOf(TCPE_CommErr error) {
  switch (error) {
  case eTCPE_CommErr_NotAllowed:
    return eNetworkError_NotAllowed;
  case eTCPE_CommErr_Full:
    return eNetworkError_Full;
  case eTCPE_CommErr_OtherNumbering:
    return eNetworkError_OtherNumbering;
  case eTCPE_CommErr_Authentication:
    return eNetworkError_Authentication;
  case eTCPE_CommErr_DuplicateAddress:
    return eNetworkError_DuplicateAddress;
  default:
    return eNetworkError_None;
  }
}

} // namespace

void TCPE_Engine::DisposeOrphan(TCPE_Command* command) { TCPE_PumpQueue::ReturnOrphan(command); }

std::shared_ptr<TCPE_Engine> TCPE_Engine::Make(Setup setup) {
  return std::make_shared<TCPE_RunningEngine>(std::move(setup));
}

TCPE_RunningEngine::TCPE_RunningEngine(Setup setup)
    : mManager(*setup.manager), mTask(std::move(setup.task)), mLimits(setup.limits),
      mMaxConnections(std::min<std::size_t>(mTask->GetMaxSatellites(), mLimits.maxConnections)),
      mLocalAddress(setup.localAddress), mBroadcastAddress(setup.broadcastAddress),
      mOnNetworkError(setup.onNetworkError), mIsHostPumped(setup.isHostPumped),
      mTypes(TCPE_CommManager::GetSupportsMarlo11() ? kTCPE_CurrentTypes : kTCPE_LegacyTypes),
      mStarted(Sys_Clock::RawMicroseconds()), mIsAuthenticating(setup.key != nullptr),
      mAdaptorName(std::move(setup.adaptorName)), mHistory(mLimits.maxDepartedPeers),
      mDispatcher(mManager, *mTask, *this), mPumpQueue(mLimits, mOnNetworkError), mByteTap(std::move(setup.byteTap)),
      mPool(
          std::make_shared<TCPE_HandlerPool>(TCPE_HandlerPool::Bounds{.threads = mLimits.maxHandlerThreads,
                                                                      .jobsPerPeer = mLimits.maxQueuedCommands,
                                                                      .bytesPerPeer = mLimits.maxQueuedBytes,
                                                                      .waitingJobsPerPeer = mLimits.maxWaitingHandlers,
                                                                      .peers = mLimits.maxQueues})),
      mDiscoveryClient(mLimits, DatagramConfig(setup.key), *mByteTap),
      mNetwork(std::make_unique<TCPE_Network>(
          EndpointConfig(setup.key), ResponderConfig(setup.key),
          TCPE_Network::Place{.address = mLocalAddress,
                              .broadcastAddress = mBroadcastAddress,
                              .port = mTask->GetCommunicationPort(),
                              .discoveryPort = setup.answersDiscovery ? mTask->GetDiscoveryPort() : std::uint16_t{0}},
          *mByteTap, static_cast<TCPE_Network::Listener&>(*this))) {}

ETCPE_Status TCPE_RunningEngine::Start() {
  try {
    mPool->Start();
  } catch (const std::system_error&) {
    return eTCPE_Status_SystemError;
  }
  const ETCPE_Status status = mNetwork->Start();
  if (status != eTCPE_Status_Success) {
    mPool->Stop(mLimits.handlersAtEnd);
  }
  return status;
}

void TCPE_RunningEngine::Stop() {
  mIsStopping = true;
  mDiscoveryClient.Stop();
  mNetwork->Stop();
  {
    const std::lock_guard lock(mAttemptsMutex);
    for (const auto& [address, attempt] : mAttempts) {
      attempt->hasEnded = true;
    }
    mAttempts.clear();
    mAttemptEnded.notify_all();
  }
  if (mIsHostPumped) {
    mPumpQueue.Stop(mLimits.handlersAtEnd);
  }
  mPool->Stop(mLimits.handlersAtEnd);
}

bool TCPE_RunningEngine::IsOnOwnThread() const {
  return mNetwork->IsOnNetworkThread() || mPool->IsOnHandlerThread() || mPumpQueue.IsInHandOfThisThread();
}

bool TCPE_RunningEngine::Connect(std::uint32_t address) {
  if (!IsPossiblePeer(address) || mNetwork->IsOnNetworkThread()) {
    return false;
  }
  if (IsConnected(address)) {
    return true;
  }
  const TCPE_HandlerPool::WaitScope waits;
  std::unique_lock lock(mAttemptsMutex);
  if (mIsStopping) {
    return false;
  }
  std::shared_ptr<Attempt>& entry = mAttempts[address];
  if (!entry) {
    entry = std::make_shared<Attempt>();
    mNetwork->Connect(address);
  }
  const std::shared_ptr<Attempt> attempt = entry;
  // The endpoint ends every attempt by itself; the bound is a second line of defence.
  const TCPE_Time bound = 2 * (mLimits.transportConnect + mLimits.handshake);
  if (!mAttemptEnded.wait_for(lock, std::chrono::microseconds(bound), [&attempt] { return attempt->hasEnded; })) {
    mAttempts.erase(address);
  }
  return attempt->isConnected;
}

bool TCPE_RunningEngine::Disconnect(std::uint32_t address) {
  const ConnectionPointer connection = ConnectionOf(address);
  if (!connection || !connection->TryEnd()) {
    return false;
  }
  Ended(connection, eNetworkError_None);
  Farewell(connection, eTCPE_CommErr_ConnectionLost);
  return true;
}

bool TCPE_RunningEngine::IsConnected(std::uint32_t address) const { return ConnectionOf(address) != nullptr; }

std::set<std::uint32_t> TCPE_RunningEngine::GetConnectedAddresses() const {
  std::set<std::uint32_t> addresses;
  const std::lock_guard lock(mConnectedMutex);
  for (const auto& [address, connection] : mConnected) {
    addresses.insert(address);
  }
  return addresses;
}

void TCPE_RunningEngine::SendCommand(TCPE_Command& command) {
  const TCPE_CommErr error = Send(command);
  command.SetError(error);
  if (error != eTCPE_CommErr_None && command.IsSynchronous()) {
    command.SetCommandType(mTask->GetErrorCommandID());
  }
}

TCPE_Command* TCPE_RunningEngine::TakeCommand() { return mPumpQueue.Take(); }

void TCPE_RunningEngine::DisposeCommand(TCPE_Command* command) {
  if (const ReceivedPointer received = mPumpQueue.Return(command)) {
    mDispatcher.Reply(*received);
  } else {
    DisposeOrphan(command);
  }
}

void TCPE_RunningEngine::NetworkErrorOccured(ETCPE_NetworkError error, std::uint32_t address) {
  if (error == eNetworkError_None) {
    return;
  }
  if (const ConnectionPointer connection = ConnectionOf(address)) {
    mNetwork->End(connection, error);
  } else {
    ReportNetworkError(error, address);
  }
}

void TCPE_RunningEngine::SetLocalSystemType(ETCPE_SystemType type) {
  mNetwork->SetLocalSystemType(static_cast<std::uint8_t>(type));
}

void TCPE_RunningEngine::SetCommandLog(TCPE_CommManager::CommandLogProc log) { mDispatcher.SetCommandLog(log); }

bool TCPE_RunningEngine::GetAuthenticationFailed(std::uint32_t address) const {
  return mNetwork->HasAuthenticationFailed(address);
}

TCPE_Counters TCPE_RunningEngine::GetCounters() const {
  TCPE_Counters counters = mDispatcher.GetCounters();
  const TCPE_Endpoint::Counts& counts = mNetwork->Counts();
  counters.refusedConnections = counts.refusals;
  counters.unprovedSecrets = counts.unproved;
  counters.turnedAway = counts.turnedAway;
  counters.wrongTags = counts.wrongTags;
  counters.malformedFrames = counts.malformed;
  counters.unfinishedFrames = counts.unfinished;
  for (const TCPE_DiscoveryCounters* side : {&mNetwork->DiscoveryCounters(), &mDiscoveryClient.Counters()}) {
    counters.malformedDatagrams += side->malformed;
    counters.otherNumberingDatagrams += side->otherNumbering;
    counters.unauthenticDatagrams += side->notAuthentic;
    counters.datagramsBeyondRate += side->beyondRate;
  }
  return counters;
}

TCPE_EngineSnapshot TCPE_RunningEngine::GetSnapshot() const {
  std::map<std::uint32_t, ConnectionPointer> connected;
  std::string adaptorName;
  {
    const std::lock_guard lock(mConnectedMutex);
    connected = mConnected;
    adaptorName = mAdaptorName;
  }
  const TCPE_Time now = Sys_Clock::RawMicroseconds();
  TCPE_EngineSnapshot snapshot{.isInitialized = true,
                               .address = mLocalAddress,
                               .adaptorName = adaptorName,
                               .communicationPort = mTask->GetCommunicationPort(),
                               .runningFor = now - mStarted,
                               .counters = GetCounters(),
                               .peers = mHistory.Peers(now)};
  for (TCPE_PeerSnapshot& peer : snapshot.peers) {
    peer.isAuthenticated = mIsAuthenticating; // else it would not have been admitted
    peer.handlers = mIsHostPumped ? mPumpQueue.GetLoad(peer.address) : mPool->GetLoad(peer.address);
    if (const auto position = connected.find(peer.address); position != connected.end()) {
      TCPE_Connection& connection = *position->second;
      peer.systemType = connection.GetPeerSystemType();
      peer.silentFor = std::max(now - connection.LastReceived(), TCPE_Time{0});
      peer.outboundBytes = connection.OutboundBytes();
      peer.pendingCalls = connection.Calls().Count();
    }
  }
  return snapshot;
}

bool TCPE_RunningEngine::SendDiscoveryQuery(Sys_UDPSocket& socket, TCPE_DiscoveryCodec::Kind kind,
                                            std::uint32_t address) {
  const std::uint32_t target = address != 0 ? address : mBroadcastAddress.load();
  return target != 0 && mLocalAddress != 0 &&
         mDiscoveryClient.Ask(socket,
                              {.kind = kind,
                               .serial = static_cast<std::uint32_t>(Sys_Umid::Random64()),
                               .nonce = TCPE_AuthenticationKey::MakeNonce(),
                               .senderSystemType = static_cast<std::uint8_t>(mManager.GetSystemType())},
                              mLocalAddress, target, mTask->GetDiscoveryPort());
}

bool TCPE_RunningEngine::ReceiveDiscoveryReply(Sys_UDPSocket& socket, TCPE_DiscoveryCodec::Kind kind,
                                               std::int32_t* remainingMilliseconds, TCPE_DiscoveryCodec::Reply* reply) {
  return mDiscoveryClient.Receive(socket, kind, mLocalAddress, remainingMilliseconds, reply);
}

bool TCPE_RunningEngine::IsFull() const {
  const std::lock_guard lock(mConnectedMutex);
  return mConnected.size() >= mMaxConnections;
}

void TCPE_RunningEngine::MoveTo(std::uint32_t address, std::uint32_t broadcastAddress, const std::string& adaptorName) {
  {
    const std::lock_guard lock(mConnectedMutex);
    mAdaptorName = adaptorName;
  }
  mLocalAddress = address;
  mBroadcastAddress = broadcastAddress;
  mNetwork->MoveTo(address, broadcastAddress);
}

TCPE_Endpoint::Config TCPE_RunningEngine::EndpointConfig(std::shared_ptr<const TCPE_AuthenticationKey> key) {
  TCPE_Endpoint::Config config;
  config.limits = mLimits;
  config.local.hello.majorVersion = mTask->GetCurrentProtocolMajorVersion();
  config.local.hello.instance = Sys_Umid::Random64();
  config.local.minorVersion = mTask->GetCurrentProtocolMinorVersion();
  config.local.systemType = static_cast<std::uint8_t>(mManager.GetSystemType());
  config.local.connectType = mTypes.connect;
  config.local.challengeType = mTypes.authenticationChallenge;
  config.localAddress = mLocalAddress;
  config.disconnectType = mTypes.disconnect;
  config.maxConnections = mMaxConnections;
  config.allowConnect = [this](std::uint32_t address) {
    try {
      return mManager.AllowConnect(address);
    } catch (...) { // a host that cannot decide admits nobody
      return false;
    }
  };
  config.key = std::move(key);
  config.makeNonce = &TCPE_AuthenticationKey::MakeNonce;
  config.examineConnect = [this](std::uint32_t address, const TCPE_FrameHeader& header,
                                 std::span<const std::byte> payload) {
    return ExamineConnect(address, header, payload);
  };
  config.makeConnectFrame = [this](std::uint32_t address) { return MakeConnectFrame(address); };
  return config;
}

TCPE_DiscoveryCodec::Config
TCPE_RunningEngine::DatagramConfig(std::shared_ptr<const TCPE_AuthenticationKey> key) const {
  return {.majorVersion = mTask->GetCurrentProtocolMajorVersion(),
          .minorVersion = mTask->GetCurrentProtocolMinorVersion(),
          .types = mTypes,
          .key = std::move(key)};
}

TCPE_DiscoveryResponder::Config TCPE_RunningEngine::ResponderConfig(std::shared_ptr<const TCPE_AuthenticationKey> key) {
  return {.limits = mLimits,
          .datagrams = DatagramConfig(std::move(key)),
          .describe =
              [this] {
                TCPE_DiscoveryResponder::Self self{.reply = {.system = mManager.CopyLocalSystem()},
                                                   .isSatellite = mManager.IsSatellite()};
                try {
                  self.reply.isAvailable = mManager.IsAvailable();
                } catch (...) { // a host that cannot decide is not available
                  self.reply.isAvailable = false;
                }
                return self;
              },
          .random = Sys_Umid::Random64};
}

std::vector<std::byte> TCPE_RunningEngine::MakeConnectFrame(std::uint32_t address) {
  TCPE_CommandCodec codec;
  const TCPE_CommandCodec::Stamp stamp{.wireType = mTypes.connect,
                                       .serial = ++mLastSerial,
                                       .localSystemType = mManager.GetSystemType(),
                                       .replyWanted = true};
  if (const auto fresh = FreshCommand(mTypes.connect)) {
    mTask->FillConnectCommand(fresh->Command(), mManager.CopyLocalSystem());
    codec.EncodeCommand(*mTask, *fresh->Command(), stamp);
    mDispatcher.Log(TCPE_Dispatcher::LogEvent::sent, *fresh->Command(), address);
  } else {
    TCPE_Cmd_Disconnect bare(nullptr, mTypes.connect);
    codec.EncodeCommand(*mTask, bare, stamp);
  }
  return {codec.Frame().begin(), codec.Frame().end()};
}

bool TCPE_RunningEngine::IsPossiblePeer(std::uint32_t address) const {
  constexpr std::uint32_t kFirstMulticast = 0xe0000000;
  return address != 0 && address != mLocalAddress && address != mBroadcastAddress && address < kFirstMulticast &&
         mLocalAddress != 0;
}

TCPE_RunningEngine::ConnectionPointer TCPE_RunningEngine::ConnectionOf(std::uint32_t address) const {
  const std::lock_guard lock(mConnectedMutex);
  const auto position = mConnected.find(address);
  return position != mConnected.end() ? position->second : nullptr;
}

void TCPE_RunningEngine::Ended(const ConnectionPointer& connection, ETCPE_NetworkError error) {
  mHistory.Ended(connection->GetAddress(), connection->GetId(), error, Sys_Clock::RawMicroseconds());
  const std::lock_guard lock(mConnectedMutex);
  const auto position = mConnected.find(connection->GetAddress());
  if (position != mConnected.end() && position->second == connection) {
    mConnected.erase(position);
  }
}

void TCPE_RunningEngine::Farewell(const ConnectionPointer& connection, TCPE_CommErr waitersGet) {
  connection->Calls().FailAll(waitersGet);
  TCPE_Cmd_Disconnect farewell(nullptr, mTypes.disconnect);
  EncodeAndSend(farewell, *connection,
                {.wireType = mTypes.disconnect,
                 .serial = ++mLastSerial,
                 .localSystemType = mManager.GetSystemType(),
                 .remoteSystemType = connection->GetPeerSystemType()},
                TCPE_Connection::Urgency::now);
  mNetwork->End(connection, eNetworkError_None);
}

TCPE_CommErr TCPE_RunningEngine::Send(TCPE_Command& command) {
  if (mIsStopping) {
    return eTCPE_CommErr_NotInitialized;
  }
  TCPE_eCmd wireType = mTypes.disconnect;
  if (dynamic_cast<const TCPE_Cmd_Disconnect*>(&command) == nullptr) {
    if (const TCPE_CommErr error = mTask->PrepareToSend(&command); error != eTCPE_CommErr_None) {
      return error;
    }
    wireType = mTask->GetTCPECommandType(command.GetCommandType());
  }
  if (wireType == mTypes.connect) {
    return eTCPE_CommErr_NotSendable;
  }
  if (wireType == mTypes.disconnect) {
    return Disconnect(command.GetIPAddressTo()) ? eTCPE_CommErr_None : eTCPE_CommErr_NotConnected;
  }
  const ConnectionPointer connection = ConnectionOf(command.GetIPAddressTo());
  if (!connection) {
    return eTCPE_CommErr_NotConnected;
  }
  const bool isSynchronous = command.IsSynchronous();
  const TCPE_CommandCodec::Stamp stamp{.wireType = wireType,
                                       .serial = ++mLastSerial,
                                       .localSystemType = mManager.GetSystemType(),
                                       .remoteSystemType = connection->GetPeerSystemType(),
                                       .replyWanted = isSynchronous};
  command.SetIPAddressFrom(mLocalAddress);
  const TCPE_CommErr error = isSynchronous ? SendAndWait(command, *connection, stamp)
                                           : EncodeAndSend(command, *connection, stamp, TCPE_Connection::Urgency::soon);
  if (error != eTCPE_CommErr_None) {
    connection->Traffic().AddError(error);
  }
  return error;
}

TCPE_CommErr TCPE_RunningEngine::EncodeAndSend(TCPE_Command& command, TCPE_Connection& connection,
                                               const TCPE_CommandCodec::Stamp& stamp,
                                               TCPE_Connection::Urgency urgency) {
  TCPE_CommandCodec codec;
  TCPE_CommErr error = codec.EncodeCommand(*mTask, command, stamp);
  if (error == eTCPE_CommErr_None) {
    error = connection.Send(codec.Frame(), urgency);
  }
  if (error == eTCPE_CommErr_None) {
    mDispatcher.Log(TCPE_Dispatcher::LogEvent::sent, command, connection.GetAddress());
  }
  return error;
}

TCPE_CommErr TCPE_RunningEngine::SendAndWait(TCPE_Command& command, TCPE_Connection& connection,
                                             TCPE_CommandCodec::Stamp stamp) {
  if (mNetwork->IsOnNetworkThread()) {
    return eTCPE_CommErr_WrongThread;
  }
  TCPE_Call call(Sys_Clock::RawMicroseconds());
  if (const TCPE_CommErr refused = connection.Calls().Add(stamp.serial, call); refused != eTCPE_CommErr_None) {
    return refused;
  }
  const TCPE_CommErr error = EncodeAndSend(command, connection, stamp, TCPE_Connection::Urgency::now);
  if (error != eTCPE_CommErr_None) {
    connection.Calls().Cancel(stamp.serial, error);
  }
  const TCPE_HandlerPool::WaitScope waits;
  connection.Calls().Wait(stamp.serial, call);
  if (call.error != eTCPE_CommErr_None) {
    return call.error;
  }
  connection.Traffic().roundTrips.Add(call.answered - call.begin);
  return TakeReply(command, stamp.wireType, call);
}

/// A fresh object takes the reply first: one that is malformed must not leave its traces in the caller's.
TCPE_CommErr TCPE_RunningEngine::TakeReply(TCPE_Command& command, TCPE_eCmd wireType, const TCPE_Call& call) {
  if (call.header.Has(kTCPE_Flag_ErrorReply)) {
    return call.header.error != eTCPE_CommErr_None ? static_cast<TCPE_CommErr>(call.header.error)
                                                   : eTCPE_CommErr_MalformedPayload;
  }
  const auto fresh = FreshCommand(wireType);
  if (!fresh || call.header.type != wireType ||
      !TCPE_CommandCodec::DecodeReply(*fresh->Command(), call.header, call.payload)) {
    return eTCPE_CommErr_MalformedPayload;
  }
  TCPE_CommandCodec::DecodeReply(command, call.header, call.payload);
  command.SetRemoteSystemType(static_cast<ETCPE_SystemType>(call.header.senderSystemType));
  command.SetIsReply(true);
  mDispatcher.Log(TCPE_Dispatcher::LogEvent::answered, command, command.GetIPAddressTo());
  return eTCPE_CommErr_None;
}

std::unique_ptr<TCPE_ReceivedCommand> TCPE_RunningEngine::FreshCommand(TCPE_eCmd wireType) {
  auto fresh = std::make_unique<TCPE_ReceivedCommand>(nullptr, TCPE_FrameHeader(), mTask->GetMaxCommandSize());
  fresh->SetCommand(mTask->ConstructCommand(mTask->GetCompatibleID(wireType), fresh->Block()));
  return fresh->Command() != nullptr ? std::move(fresh) : nullptr;
}

void TCPE_RunningEngine::OnOpened(const ConnectionPointer& connection, const TCPE_Endpoint::Event& event) {
  connection->SetPeerSystemType(event.header.senderSystemType);
  connection->CountIn(
      mHistory.Opened(connection->GetAddress(), connection->GetId(), event.openedByPeer, Sys_Clock::RawMicroseconds()));
  {
    const std::lock_guard lock(mConnectedMutex);
    mConnected[connection->GetAddress()] = connection;
  }
  if (event.openedByPeer) {
    // The endpoint answers the connect command; for the handler it is a notification.
    mDispatcher.OnConnectionFrame(connection, event.header, event.payload);
  }
}

void TCPE_RunningEngine::OnFrame(const ConnectionPointer& connection, const TCPE_FrameHeader& header,
                                 std::span<const std::byte> payload) {
  if (!connection->HasEnded()) {
    TCPE_PeerTraffic::AddAlone(connection->Traffic().received.frames, 1);
    mDispatcher.OnFrame(connection, header, payload);
  }
}

void TCPE_RunningEngine::OnDisconnected(const ConnectionPointer& connection, const TCPE_FrameHeader& header,
                                        std::span<const std::byte> payload) {
  if (connection->TryEnd()) {
    Ended(connection, eNetworkError_None);
    TCPE_PeerTraffic::AddAlone(connection->Traffic().received.frames, 1);
    connection->Calls().FailAll(eTCPE_CommErr_ConnectionLost);
    mDispatcher.OnConnectionFrame(connection, header, payload);
  }
}

void TCPE_RunningEngine::OnLost(const ConnectionPointer& connection, ETCPE_NetworkError error) {
  if (connection->TryEnd()) {
    Ended(connection, error);
    connection->Calls().FailAll(eTCPE_CommErr_ConnectionLost);
    ReportNetworkError(error, connection->GetAddress());
  }
}

void TCPE_RunningEngine::OnConnectEnded(std::uint32_t address, TCPE_CommErr error) {
  {
    const std::lock_guard lock(mAttemptsMutex);
    const auto position = mAttempts.find(address);
    if (position == mAttempts.end()) {
      return;
    }
    position->second->hasEnded = true;
    position->second->isConnected = error == eTCPE_CommErr_None;
    mAttempts.erase(position);
    mAttemptEnded.notify_all();
  }
  if (const ETCPE_NetworkError refusal = RefusalOf(error); refusal != eNetworkError_None) {
    ReportNetworkError(refusal, address);
  }
}

void TCPE_RunningEngine::OnUnproved(std::uint32_t address) {
  if (!IsQueueFull(address)) { // a stranger who goes on guessing must not fill the memory
    ReportNetworkError(eNetworkError_Authentication, address);
  }
}

/// On the network thread, where no peer can come in meanwhile.
void TCPE_RunningEngine::OnStopping() {
  std::map<std::uint32_t, ConnectionPointer> connected;
  {
    const std::lock_guard lock(mConnectedMutex);
    connected.swap(mConnected);
  }
  for (const auto& [address, connection] : connected) {
    if (connection->TryEnd()) {
      Farewell(connection, eTCPE_CommErr_NotInitialized);
    }
  }
}

void TCPE_RunningEngine::OnConnectionCommand(const TCPE_ReceivedCommand& received) {
  if (const std::string name = mTask->GetConnectingSystemName(received.Command()); !name.empty()) {
    mHistory.SetName(received.Origin()->GetAddress(), name);
  }
}

bool TCPE_RunningEngine::Deliver(const ReceivedPointer& received, bool mustNotBeLost) {
  // A block, the payload that may have become objects of several times its size, and what keeps them together.
  constexpr std::size_t kGrowth = 8;
  const std::size_t bytes = mTask->GetMaxCommandSize() + kGrowth * received->Header().dataLength;
  if (mIsHostPumped) {
    return mPumpQueue.Push(received, bytes, mustNotBeLost);
  }
  return mPool->Submit(
      received->Origin()->GetAddress(), [engine = shared_from_this(), received] { engine->RunHandler(*received); },
      bytes, mustNotBeLost);
}

void TCPE_RunningEngine::RunHandler(TCPE_ReceivedCommand& received) {
  try {
    mTask->DoCommand(received.Command());
  } catch (...) {
    received.Command()->SetError(eTCPE_CommErr_HandlerFailed);
  }
  if (!mIsStopping) {
    mDispatcher.Reply(received);
  }
}

/// A peer is admitted only when its connect command can be delivered; so what a peer that comes and goes leaves in the
/// queue is bounded though the commands of its coming and going are never dropped.
TCPE_CommErr TCPE_RunningEngine::ExamineConnect(std::uint32_t address, const TCPE_FrameHeader& header,
                                                std::span<const std::byte> payload) {
  if (!mDispatcher.IsSound(header, payload)) {
    return eTCPE_CommErr_MalformedPayload;
  }
  return IsQueueFull(address) ? eTCPE_CommErr_QueueFull : eTCPE_CommErr_None;
}

bool TCPE_RunningEngine::IsQueueFull(std::uint32_t address) const {
  return mIsHostPumped ? mPumpQueue.IsFull(address) : mPool->IsFull(address);
}

void TCPE_RunningEngine::ReportNetworkError(ETCPE_NetworkError error, std::uint32_t address) {
  if (mOnNetworkError == nullptr || mIsStopping) {
    return;
  }
  if (mIsHostPumped) {
    mPumpQueue.PushError(error, address);
  } else {
    mPool->Submit(
        address, [proc = mOnNetworkError, error, address] { proc(error, address); }, 0, true);
  }
}
