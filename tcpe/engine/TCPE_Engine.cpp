#include "tcpe/engine/TCPE_Engine.h"

#include "foundation/Cmn_HostCall.h"
#include "foundation/Sys_Prefetch.h"
#include "tcpe/engine/TCPE_HandlerDelivery.h"
#include "tcpe/engine/TCPE_PumpQueue.h"
#include "tcpe/protocol/TCPE_AuthenticationKey.h"

#include <trel/Sys_Clock.h>
#include <trel/Sys_Umid.h>
#include <trel/TCPE_Cmd_Disconnect.h>
#include <trel/TCPE_Command.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <new>
#include <system_error>
#include <typeinfo>
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

TCPE_Engine::TCPE_Engine(Setup setup)
    : mManager(*setup.manager), mTask(std::move(setup.task)), mLimits(setup.limits),
      mMaxConnections(std::min<std::size_t>(mTask->GetMaxSatellites(), mLimits.maxConnections)),
      mLocalAddress(setup.localAddress), mBroadcastAddress(setup.broadcastAddress),
      mOnNetworkError(setup.onNetworkError),
      mTypes(TCPE_CommManager::GetSupportsMarlo11() ? kTCPE_CurrentTypes : kTCPE_LegacyTypes),
      mStarted(Sys_Clock::RawMicroseconds()), mSecrets((setup.keys ? 1U : 0U) + (setup.keys.accepted ? 1U : 0U)),
      mIsSecretMadeUp(setup.isSecretMadeUp), mAdaptorName(std::move(setup.adaptorName)),
      mHistory(mLimits.maxDepartedPeers), mDispatcher(mManager, *mTask, *this),
      mDelivery(std::make_unique<TCPE_HandlerDelivery>(mLimits, mOnNetworkError)), mByteTap(std::move(setup.byteTap)),
      mDiscoveryClient(mLimits, DatagramConfig(setup.keys), *mByteTap),
      mNetwork(std::make_unique<TCPE_Network>(
          EndpointConfig(setup.keys), ResponderConfig(setup.keys),
          TCPE_Network::Place{.address = mLocalAddress,
                              .broadcastAddress = mBroadcastAddress,
                              .port = mTask->GetCommunicationPort(),
                              .discoveryPort = setup.answersDiscovery ? mTask->GetDiscoveryPort() : std::uint16_t{0}},
          *mByteTap, static_cast<TCPE_Network::Listener&>(*this))) {}

void TCPE_Engine::SetHostPumpedDelivery(bool hostPumped) {
  if (hostPumped) {
    mDelivery = std::make_unique<TCPE_PumpQueue>(mLimits, mOnNetworkError);
  }
}

ETCPE_Status TCPE_Engine::Start() {
  try {
    mDelivery->Start(shared_from_this());
  } catch (const std::system_error&) {
    return eTCPE_Status_SystemError;
  }
  const ETCPE_Status status = mNetwork->Start();
  if (status != eTCPE_Status_Success) {
    mDelivery->Stop(mLimits.handlersAtEnd);
  }
  return status;
}

void TCPE_Engine::Stop() {
  mIsStopping = true;
  mDiscoveryClient.Stop();
  mNetwork->Stop();
  {
    const std::lock_guard lock(mConnectedMutex);
    for (const auto& [address, attempt] : mAttempts) {
      attempt->hasEnded = true;
    }
    mAttempts.clear();
    mAttemptEnded.notify_all();
  }
  mDelivery->Stop(mLimits.handlersAtEnd);
}

bool TCPE_Engine::IsOnOwnThread() const { return mNetwork->IsOnNetworkThread() || mDelivery->IsOnOwnThread(); }

bool TCPE_Engine::Connect(std::uint32_t address) {
  if (!IsPossiblePeer(address) || mNetwork->IsOnNetworkThread()) {
    return false;
  }
  if (IsConnected(address)) {
    return true;
  }
  std::optional<TCPE_HandlerPool::WaitScope> waits;
  std::unique_lock lock(mConnectedMutex);
  if (mConnected.contains(address)) {
    return true;
  }
  if (mIsStopping) {
    return false;
  }
  std::shared_ptr<Attempt>& entry = mAttempts[address];
  if (!entry) {
    entry = std::make_shared<Attempt>();
    mNetwork->Connect(address);
  }
  const std::shared_ptr<Attempt> attempt = entry;
  waits.emplace();
  // The endpoint ends every attempt by itself; the bound is a second line of defence.
  const TCPE_Time bound = 2 * (mLimits.transportConnect + mLimits.handshake);
  if (!mAttemptEnded.wait_for(lock, std::chrono::microseconds(bound), [&attempt] { return attempt->hasEnded; })) {
    std::erase_if(mAttempts, [&attempt](const auto& waiting) { return waiting.second == attempt; });
  }
  return attempt->isConnected;
}

bool TCPE_Engine::Disconnect(std::uint32_t address) {
  ConnectionPointer connection;
  {
    const std::lock_guard lock(mConnectedMutex);
    if (const auto position = mConnected.find(address); position != mConnected.end()) {
      connection = position->second;
      ++mFarewells;
    }
  }
  if (!connection) {
    return false;
  }
  const bool isEnded = TryEnd(connection, eNetworkError_None);
  if (isEnded) {
    Farewell(connection, eTCPE_CommErr_ConnectionLost);
  }
  const std::lock_guard lock(mConnectedMutex);
  --mFarewells;
  mFarewellSaid.notify_all();
  return isEnded;
}

bool TCPE_Engine::IsConnected(std::uint32_t address) const { return ConnectionOf(address) != nullptr; }

std::set<std::uint32_t> TCPE_Engine::GetConnectedAddresses() const {
  std::set<std::uint32_t> addresses;
  const std::lock_guard lock(mConnectedMutex);
  for (const auto& [address, connection] : mConnected) {
    addresses.insert(address);
  }
  return addresses;
}

std::uint64_t TCPE_Engine::GetPeerInstance(std::uint32_t address) const {
  const ConnectionPointer connection = ConnectionOf(address);
  return connection ? connection->GetPeerInstance() : 0;
}

std::uint64_t TCPE_Engine::GetConnection(std::uint32_t address) const {
  const ConnectionPointer connection = ConnectionOf(address);
  return connection ? connection->GetId() : 0;
}

std::map<std::uint32_t, std::uint64_t> TCPE_Engine::GetConnections() const {
  std::map<std::uint32_t, std::uint64_t> connections;
  const std::lock_guard lock(mConnectedMutex);
  for (const auto& [address, connection] : mConnected) {
    connections.emplace(address, connection->GetId());
  }
  return connections;
}

void TCPE_Engine::SendCommand(TCPE_Command& command) {
  const TCPE_CommErr error = Send(command);
  command.SetError(error);
  if (error != eTCPE_CommErr_None && command.IsSynchronous()) {
    command.SetCommandType(mTask->GetErrorCommandID());
  }
}

TCPE_Command* TCPE_Engine::TakeCommand() { return mDelivery->Take(); }

void TCPE_Engine::DisposeCommand(TCPE_Command* command) {
  if (const ReceivedPointer received = mDelivery->Return(command)) {
    mDispatcher.Finish(*received);
  } else {
    DisposeOrphan(command);
  }
}

void TCPE_Engine::NetworkErrorOccured(ETCPE_NetworkError error, std::uint32_t address) {
  if (error == eNetworkError_None) {
    return;
  }
  if (const ConnectionPointer connection = ConnectionOf(address)) {
    mNetwork->End(connection, error);
  } else {
    ReportNetworkError(error, address);
  }
}

void TCPE_Engine::SetLocalSystemType(ETCPE_SystemType type) {
  mDispatcher.SetLocalSystemType(type);
  mNetwork->SetLocalSystemType(static_cast<std::uint8_t>(type));
}

void TCPE_Engine::SetCommandLog(TCPE_CommManager::CommandLogProc log) { mDispatcher.SetCommandLog(log); }

bool TCPE_Engine::GetAuthenticationFailed(std::uint32_t address) const {
  return mNetwork->HasAuthenticationFailed(address);
}

TCPE_Counters TCPE_Engine::GetCounters() const {
  TCPE_Counters counters = mDispatcher.GetCounters();
  const TCPE_Endpoint::Counts& counts = mNetwork->Counts();
  counters.refusedConnections = counts.refusals;
  counters.unprovedSecrets = counts.unproved;
  counters.turnedAway = counts.turnedAway;
  counters.untoldFailures = counts.untold;
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

TCPE_EngineSnapshot TCPE_Engine::GetSnapshot() const {
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
                               .secrets = mSecrets,
                               .isSecretMadeUp = mIsSecretMadeUp,
                               .counters = GetCounters(),
                               .hostFailures = Cmn_HostCall::CountFailures(),
                               .peers = mHistory.Peers(now)};
  for (TCPE_PeerSnapshot& peer : snapshot.peers) {
    peer.isAuthenticated = mSecrets != 0; // else it would not have been admitted
    peer.handlers = mDelivery->GetLoad(peer.address);
    if (const auto position = connected.find(peer.address); position != connected.end()) {
      TCPE_Connection& connection = *position->second;
      peer.systemType = connection.GetPeerSystemType();
      peer.silentFor = std::max(now - connection.LastReceived(), TCPE_Time{0});
      peer.outboundBytes = connection.OutboundBytes();
      peer.pendingCalls = connection.Calls().Count();
      const TCPE_Connection::Flow flow = connection.GetFlow();
      peer.waitingSenders = flow.waiting;
      peer.sentCommands.inFlight = flow.out + flow.kept + peer.pendingCalls;
    }
    const auto difference = [](std::uint64_t whole, std::uint64_t parts) { return whole - std::min(whole, parts); };
    TCPE_CommandCount& sent = peer.sentCommands;
    sent.finished = difference(sent.commands, sent.inFlight + sent.abandoned);
    TCPE_CommandCount& received = peer.receivedCommands;
    received.inFlight = difference(received.commands, received.finished + received.refused);
  }
  return snapshot;
}

bool TCPE_Engine::SendDiscoveryQuery(Sys_UDPSocket& socket, TCPE_DiscoveryCodec::Kind kind, std::uint32_t address) {
  const std::uint32_t target = address != 0 ? address : mBroadcastAddress.load();
  return target != 0 && mLocalAddress != 0 &&
         mDiscoveryClient.Ask(socket,
                              {.kind = kind,
                               .serial = static_cast<std::uint32_t>(Sys_Umid::Random64()),
                               .nonce = TCPE_AuthenticationKey::MakeNonce(),
                               .senderSystemType = static_cast<std::uint8_t>(mManager.GetSystemType())},
                              mLocalAddress, target, mTask->GetDiscoveryPort());
}

bool TCPE_Engine::ReceiveDiscoveryReply(Sys_UDPSocket& socket, TCPE_DiscoveryCodec::Kind kind,
                                        std::int32_t* remainingMilliseconds, TCPE_DiscoveryCodec::Reply* reply) {
  return mDiscoveryClient.Receive(socket, kind, mLocalAddress, remainingMilliseconds, reply);
}

bool TCPE_Engine::IsFull() const {
  const std::lock_guard lock(mConnectedMutex);
  return mConnected.size() >= mMaxConnections;
}

void TCPE_Engine::MoveTo(std::uint32_t address, std::uint32_t broadcastAddress, const std::string& adaptorName) {
  {
    const std::lock_guard lock(mConnectedMutex);
    mAdaptorName = adaptorName;
  }
  mLocalAddress = address;
  mBroadcastAddress = broadcastAddress;
  mNetwork->MoveTo(address, broadcastAddress);
}

TCPE_Endpoint::Config TCPE_Engine::EndpointConfig(const TCPE_SharedKeys& keys) {
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
    return Cmn_HostCall::Ask(Cmn_HostCall::Kind::hook, false, [&] { return mManager.AllowConnect(address); });
  };
  config.keys = keys;
  config.makeNonce = &TCPE_AuthenticationKey::MakeNonce;
  config.random = &Sys_Umid::Random64;
  config.examineConnect = [this](std::uint32_t address, const TCPE_FrameHeader& header,
                                 std::span<const std::byte> payload) {
    return ExamineConnect(address, header, payload);
  };
  config.makeConnectFrame = [this](std::uint32_t address) { return MakeConnectFrame(address); };
  return config;
}

TCPE_DiscoveryCodec::Config TCPE_Engine::DatagramConfig(const TCPE_SharedKeys& keys) const {
  return {.majorVersion = mTask->GetCurrentProtocolMajorVersion(),
          .minorVersion = mTask->GetCurrentProtocolMinorVersion(),
          .types = mTypes,
          .keys = keys};
}

TCPE_DiscoveryResponder::Config TCPE_Engine::ResponderConfig(const TCPE_SharedKeys& keys) {
  return {.limits = mLimits,
          .datagrams = DatagramConfig(keys),
          .describe =
              [this] {
                TCPE_DiscoveryResponder::Self self{.reply = {.system = mManager.CopyLocalSystem()},
                                                   .isSatellite = mManager.IsSatellite()};
                self.reply.isAvailable =
                    Cmn_HostCall::Ask(Cmn_HostCall::Kind::hook, false, [this] { return mManager.IsAvailable(); });
                return self;
              },
          .random = Sys_Umid::Random64};
}

std::vector<std::byte> TCPE_Engine::MakeConnectFrame(std::uint32_t address) {
  TCPE_CommandCodec codec;
  const TCPE_CommandCodec::Stamp stamp{.wireType = mTypes.connect,
                                       .serial = ++mLastSerial,
                                       .localSystemType = mDispatcher.GetLocalSystemType(),
                                       .replyWanted = true};
  const bool isFilled = Cmn_HostCall::Ask(Cmn_HostCall::Kind::hook, false, [&] {
    const auto fresh = mDispatcher.Fresh(mTypes.connect);
    if (fresh) {
      mTask->FillConnectCommand(fresh->Command(), mManager.CopyLocalSystem());
      codec.EncodeCommand(*mTask, *fresh->Command(), stamp);
      mDispatcher.Log(TCPE_Dispatcher::LogEvent::sent, *fresh->Command(), address);
    }
    return fresh != nullptr;
  });
  if (!isFilled) {
    TCPE_Cmd_Disconnect bare(nullptr, mTypes.connect);
    codec.EncodeCommand(*mTask, bare, stamp);
  }
  return {codec.Frame().begin(), codec.Frame().end()};
}

bool TCPE_Engine::IsPossiblePeer(std::uint32_t address) const {
  constexpr std::uint32_t kFirstMulticast = 0xe0000000;
  return address != 0 && address != mLocalAddress && address != mBroadcastAddress && address < kFirstMulticast &&
         mLocalAddress != 0;
}

TCPE_Engine::ConnectionPointer TCPE_Engine::ConnectionOf(std::uint32_t address) const {
  const std::lock_guard lock(mConnectedMutex);
  const auto position = mConnected.find(address);
  return position != mConnected.end() ? position->second : nullptr;
}

std::vector<TCPE_Engine::ConnectionPointer> TCPE_Engine::ConnectionsOf(std::span<const std::uint32_t> addresses) const {
  std::vector<ConnectionPointer> connections(addresses.size());
  const std::lock_guard lock(mConnectedMutex);
  for (std::size_t place = 0; place < addresses.size(); ++place) {
    if (const auto position = mConnected.find(addresses[place]); position != mConnected.end()) {
      connections[place] = position->second;
    }
  }
  return connections;
}

bool TCPE_Engine::TryEnd(const ConnectionPointer& connection, ETCPE_NetworkError error) {
  const std::uint32_t address = connection->GetAddress();
  {
    const std::lock_guard lock(mConnectedMutex);
    if (!connection->TryEnd()) {
      return false;
    }
    if (const auto position = mConnected.find(address);
        position != mConnected.end() && position->second == connection) {
      mConnected.erase(position);
      EndAttempt(address, true); // whoever has not heard of this connection yet; who asks from now on wants another one
    }
  }
  mHistory.Ended(address, connection->GetId(), error, Sys_Clock::RawMicroseconds());
  return true;
}

bool TCPE_Engine::EndAttempt(std::uint32_t address, bool isConnected) {
  const auto position = mAttempts.find(address);
  if (position == mAttempts.end()) {
    return false;
  }
  position->second->hasEnded = true;
  position->second->isConnected = isConnected;
  mAttempts.erase(position);
  mAttemptEnded.notify_all();
  return true;
}

void TCPE_Engine::Farewell(const ConnectionPointer& connection, TCPE_CommErr waitersGet) {
  connection->Calls().FailAll(waitersGet);
  connection->EndWaiting(waitersGet, true);
  TCPE_Cmd_Disconnect farewell(nullptr, mTypes.disconnect);
  TCPE_CommandCodec codec;
  if (Encode(codec, farewell,
             {.wireType = mTypes.disconnect,
              .serial = ++mLastSerial,
              .localSystemType = mDispatcher.GetLocalSystemType(),
              .remoteSystemType = connection->GetPeerSystemType()}) == eTCPE_CommErr_None &&
      connection->Send(codec.Frame(), TCPE_Connection::Kind::farewell) == eTCPE_CommErr_None) {
    mDispatcher.Log(TCPE_Dispatcher::LogEvent::sent, farewell, connection->GetAddress());
  }
  mNetwork->End(connection, eNetworkError_None);
}

TCPE_CommErr TCPE_Engine::Prepare(TCPE_Command& command, TCPE_eCmd* wireType) {
  if (mIsStopping) {
    return eTCPE_CommErr_NotInitialized;
  }
  *wireType = mTypes.disconnect;
  if (typeid(command) != typeid(TCPE_Cmd_Disconnect)) { // quicker than a cast, and nothing derives from it
    if (const TCPE_CommErr error = mTask->PrepareToSend(&command); error != eTCPE_CommErr_None) {
      return error;
    }
    *wireType = mTask->GetTCPECommandType(command.GetCommandType());
  }
  return *wireType == mTypes.connect ? eTCPE_CommErr_NotSendable : eTCPE_CommErr_None;
}

TCPE_CommErr TCPE_Engine::Send(TCPE_Command& command) {
  TCPE_eCmd wireType = 0;
  if (const TCPE_CommErr error = Prepare(command, &wireType); error != eTCPE_CommErr_None) {
    return error;
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
                                       .localSystemType = mDispatcher.GetLocalSystemType(),
                                       .remoteSystemType = connection->GetPeerSystemType(),
                                       .replyWanted = isSynchronous};
  command.SetIPAddressFrom(mLocalAddress);
  bool isSent = false;
  const TCPE_CommErr error =
      isSynchronous ? SendAndWait(command, *connection, stamp, &isSent) : SendInCredit(command, *connection, stamp);
  if (error != eTCPE_CommErr_None && !isSent) {
    NoteRefused(*connection, error);
  } else if (error != eTCPE_CommErr_None) {
    connection->Traffic().AddError(error);
  }
  return error;
}

void TCPE_Engine::NoteRefused(TCPE_Connection& connection, TCPE_CommErr error) {
  connection.Traffic().AddError(error);
  TCPE_PeerTraffic::Add(connection.Traffic().sent.refused, 1);
}

std::vector<TCPE_CommErr> TCPE_Engine::SendCommandToAll(TCPE_Command& command, std::span<const std::uint32_t> addresses,
                                                        const TCPE_CommManager::ReplyProc& onReply) {
  const bool isSynchronous = command.IsSynchronous();
  TCPE_eCmd wireType = 0;
  TCPE_CommErr error = Prepare(command, &wireType);
  if (error == eTCPE_CommErr_None && wireType == mTypes.disconnect) {
    error = eTCPE_CommErr_NotSendable;
  } else if (error == eTCPE_CommErr_None && isSynchronous && mNetwork->IsOnNetworkThread()) {
    error = eTCPE_CommErr_WrongThread;
  }
  TCPE_CommandCodec codec;
  if (error == eTCPE_CommErr_None) {
    command.SetIPAddressFrom(mLocalAddress);
    error = Encode(
        codec, command,
        {.wireType = wireType, .localSystemType = mDispatcher.GetLocalSystemType(), .replyWanted = isSynchronous});
  }
  std::vector<TCPE_CommErr> errors(addresses.size(), error);
  if (error != eTCPE_CommErr_None) {
    return errors;
  }
  std::deque<SentQuery> queries;
  const std::vector<ConnectionPointer> connections = ConnectionsOf(addresses);
  for (std::size_t place = 0; place < addresses.size(); ++place) {
    if (place + 1 < addresses.size()) { // what it takes comes while this one is written to
      Sys_Prefetch(connections[place + 1].get(), sizeof(TCPE_Connection));
    }
    const ConnectionPointer& connection = connections[place];
    if (!connection) {
      errors[place] = eTCPE_CommErr_NotConnected;
      continue;
    }
    const std::uint32_t serial = ++mLastSerial;
    codec.SetReceiver(serial, connection->GetPeerSystemType());
    if (isSynchronous) {
      SentQuery& query = queries.emplace_back(connection, place, serial);
      errors[place] = SendQuery(codec.Frame(), *connection, serial, query.call);
    } else {
      errors[place] = connection->TrySendCommand(codec.Frame(), TCPE_Connection::Keeping::ofLibrary)
                          .value_or(eTCPE_CommErr_QueueFull);
    }
    if (errors[place] == eTCPE_CommErr_None) {
      mDispatcher.Log(TCPE_Dispatcher::LogEvent::sent, command, addresses[place]);
    } else {
      NoteRefused(*connection, errors[place]);
      if (isSynchronous) {
        queries.pop_back();
      }
    }
  }
  {
    std::optional<TCPE_HandlerPool::WaitScope> waits;
    for (SentQuery& query : queries) {
      if (!TCPE_PendingCalls::Spin(query.call) && !waits) {
        waits.emplace();
      }
      query.connection->Calls().Wait(query.serial, query.call);
    }
  }
  for (const SentQuery& query : queries) {
    TCPE_CommErr& result = errors[query.place];
    result = ResultOf(*query.connection, query.call);
    if (result != eTCPE_CommErr_None) {
      query.connection->Traffic().AddError(result);
      continue;
    }
    const ReceivedPointer reply = DecodeReply(wireType, query.call);
    if (!reply) {
      result = eTCPE_CommErr_MalformedPayload;
      query.connection->Traffic().AddError(result);
      continue;
    }
    NoteReply(*reply->Command(), query.call, addresses[query.place]);
    if (onReply) {
      Cmn_HostCall::Run(Cmn_HostCall::Kind::hook, [&] { onReply(query.place, *reply->Command()); });
    }
  }
  return errors;
}

TCPE_CommErr TCPE_Engine::Encode(TCPE_CommandCodec& codec, TCPE_Command& command,
                                 const TCPE_CommandCodec::Stamp& stamp) {
  return Cmn_HostCall::Ask(Cmn_HostCall::Kind::hook, eTCPE_CommErr_HandlerFailed,
                           [&] { return codec.EncodeCommand(*mTask, command, stamp); });
}

TCPE_CommErr TCPE_Engine::SendInCredit(TCPE_Command& command, TCPE_Connection& connection,
                                       const TCPE_CommandCodec::Stamp& stamp) {
  TCPE_CommandCodec codec;
  TCPE_CommErr error = Encode(codec, command, stamp);
  if (error == eTCPE_CommErr_None) {
    error = SendInCredit(codec.Frame(), connection);
  }
  if (error == eTCPE_CommErr_None) {
    mDispatcher.Log(TCPE_Dispatcher::LogEvent::sent, command, connection.GetAddress());
  }
  return error;
}

TCPE_CommErr TCPE_Engine::SendInCredit(std::span<const std::byte> frame, TCPE_Connection& connection) {
  using Keeping = TCPE_Connection::Keeping;
  std::size_t* const keptByThisJob = TCPE_HandlerPool::KeptByThisJob();
  const bool mayKeep = keptByThisJob != nullptr && *keptByThisJob < mLimits.maxKeptOfHandler;
  const Keeping keeping = TCPE_CommManager::NeverWaits::IsInForce() ? Keeping::ofLibrary
                          : mayKeep                                 ? Keeping::ofHandler
                                                                    : Keeping::no;
  if (const std::optional<TCPE_CommErr> error = connection.TrySendCommand(frame, keeping, keptByThisJob)) {
    return *error;
  }
  if (mNetwork->IsOnNetworkThread() || !mDelivery->MayWaitHere()) {
    return eTCPE_CommErr_QueueFull;
  }
  TCPE_Connection::Waiter waiter{.frame = frame, .isHandler = keeping == Keeping::ofHandler};
  if (connection.LineUp(waiter)) {
    const TCPE_HandlerPool::WaitScope waits;
    connection.Await(waiter);
  }
  return waiter.error;
}

TCPE_CommErr TCPE_Engine::SendQuery(std::span<const std::byte> frame, TCPE_Connection& connection, std::uint32_t serial,
                                    TCPE_Call& call) {
  if (const TCPE_CommErr refused = connection.Calls().Add(serial, call); refused != eTCPE_CommErr_None) {
    return refused;
  }
  if (const TCPE_CommErr error = connection.Send(frame, TCPE_Connection::Kind::query); error != eTCPE_CommErr_None) {
    connection.Calls().Cancel(serial, error);
    return error;
  }
  if (connection.ClearPaused()) { // the reply may stand behind commands that are not read
    mNetwork->Resume(connection.shared_from_this());
  }
  return eTCPE_CommErr_None;
}

TCPE_CommErr TCPE_Engine::SendAndWait(TCPE_Command& command, TCPE_Connection& connection,
                                      TCPE_CommandCodec::Stamp stamp, bool* isSent) {
  if (mNetwork->IsOnNetworkThread()) {
    return eTCPE_CommErr_WrongThread;
  }
  TCPE_Call call(Sys_Clock::RawMicroseconds());
  TCPE_CommandCodec codec;
  TCPE_CommErr error = Encode(codec, command, stamp);
  if (error == eTCPE_CommErr_None) {
    error = SendQuery(codec.Frame(), connection, stamp.serial, call);
  }
  if (error != eTCPE_CommErr_None) {
    return error;
  }
  *isSent = true;
  mDispatcher.Log(TCPE_Dispatcher::LogEvent::sent, command, connection.GetAddress());
  {
    std::optional<TCPE_HandlerPool::WaitScope> waits;
    if (!TCPE_PendingCalls::Spin(call)) {
      waits.emplace();
    }
    connection.Calls().Wait(stamp.serial, call);
  }
  error = ResultOf(connection, call);
  return error == eTCPE_CommErr_None ? TakeReply(command, stamp.wireType, call) : error;
}

TCPE_CommErr TCPE_Engine::ResultOf(TCPE_Connection& connection, const TCPE_Call& call) {
  if (call.error != eTCPE_CommErr_None) {
    TCPE_PeerTraffic::Add(connection.Traffic().sent.abandoned, 1);
    return call.error;
  }
  connection.Traffic().roundTrips.Add(call.arrival.arrived - call.begin);
  if (call.header.Has(kTCPE_Flag_ErrorReply)) {
    return call.header.error != eTCPE_CommErr_None ? static_cast<TCPE_CommErr>(call.header.error)
                                                   : eTCPE_CommErr_MalformedPayload;
  }
  return eTCPE_CommErr_None;
}

/// A fresh object takes the reply first: one that is malformed must not leave its traces in the caller's.
TCPE_CommErr TCPE_Engine::TakeReply(TCPE_Command& command, TCPE_eCmd wireType, const TCPE_Call& call) {
  if (!DecodeReply(wireType, call)) {
    return eTCPE_CommErr_MalformedPayload;
  }
  TCPE_CommandCodec::DecodeReply(command, call.header, call.payload);
  NoteReply(command, call, command.GetIPAddressTo());
  return eTCPE_CommErr_None;
}

TCPE_Engine::ReceivedPointer TCPE_Engine::DecodeReply(TCPE_eCmd wireType, const TCPE_Call& call) {
  ReceivedPointer fresh = call.header.type == wireType ? mDispatcher.Fresh(wireType) : nullptr;
  const bool isSound = fresh && TCPE_CommandCodec::DecodeReply(*fresh->Command(), call.header, call.payload);
  return isSound ? std::move(fresh) : nullptr;
}

void TCPE_Engine::NoteReply(TCPE_Command& command, const TCPE_Call& call, std::uint32_t address) {
  command.SetRemoteSystemType(static_cast<ETCPE_SystemType>(call.header.senderSystemType));
  command.SetIsReply(true);
  command.SetArrivalTime(call.arrival.HostTime());
  mDispatcher.Log(TCPE_Dispatcher::LogEvent::answered, command, address);
}

void TCPE_Engine::OnOpened(const ConnectionPointer& connection, const TCPE_Endpoint::Event& event) {
  connection->SetPeerSystemType(event.header.senderSystemType);
  connection->CountIn(
      mHistory.Opened(connection->GetAddress(), connection->GetId(), event.openedByPeer, Sys_Clock::RawMicroseconds()));
  Cmn_HostCall::Run(Cmn_HostCall::Kind::hook, [&] {
    mManager.PeerConnected(connection->GetAddress(), connection->GetPeerInstance(), connection->GetPeerSystemType());
  });
  {
    const std::lock_guard lock(mConnectedMutex);
    mConnected[connection->GetAddress()] = connection;
  }
  if (event.openedByPeer) {
    // The endpoint answers the connect command; for the handler it is a notification.
    mDispatcher.OnConnectionFrame(connection, event.header, event.payload);
  }
}

void TCPE_Engine::OnFrame(const ConnectionPointer& connection, const TCPE_FrameHeader& header,
                          std::span<const std::byte> payload, const TCPE_Arrival& arrival) {
  if (!connection->HasEnded()) {
    TCPE_PeerTraffic::AddAlone(connection->Traffic().received.frames, 1);
    mDispatcher.OnFrame(connection, header, payload, arrival);
  }
}

void TCPE_Engine::OnDisconnected(const ConnectionPointer& connection, const TCPE_FrameHeader& header,
                                 std::span<const std::byte> payload) {
  if (TryEnd(connection, eNetworkError_None)) {
    TCPE_PeerTraffic::AddAlone(connection->Traffic().received.frames, 1);
    connection->Calls().FailAll(eTCPE_CommErr_ConnectionLost);
    connection->EndWaiting(eTCPE_CommErr_ConnectionLost, false);
    mDispatcher.OnConnectionFrame(connection, header, payload);
  }
}

void TCPE_Engine::OnLost(const ConnectionPointer& connection, ETCPE_NetworkError error) {
  if (TryEnd(connection, error)) {
    mDispatcher.LogLoss(error, connection->GetAddress());
    connection->Calls().FailAll(eTCPE_CommErr_ConnectionLost);
    connection->EndWaiting(eTCPE_CommErr_ConnectionLost, false);
    ReportNetworkError(error, connection->GetAddress());
  }
}

void TCPE_Engine::OnConnectEnded(std::uint32_t address, TCPE_CommErr error) {
  const bool isConnected = error == eTCPE_CommErr_None;
  {
    const std::lock_guard lock(mConnectedMutex);
    // When the connection has been ended meanwhile, an attempt that is there has begun since, and another event will
    // end it.
    if ((isConnected && !mConnected.contains(address)) || !EndAttempt(address, isConnected)) {
      return;
    }
  }
  if (const ETCPE_NetworkError refusal = RefusalOf(error); refusal != eNetworkError_None) {
    ReportNetworkError(refusal, address);
  }
}

void TCPE_Engine::OnStrangers(ETCPE_NetworkError error, std::uint32_t address) {
  if (!mDelivery->IsFull(address)) { // a stranger who goes on guessing must not fill the memory
    ReportNetworkError(error, address);
  }
}

/// On the network thread, where no peer can come in meanwhile.
void TCPE_Engine::OnStopping() {
  constexpr auto kPatience = std::chrono::milliseconds(100);
  std::map<std::uint32_t, ConnectionPointer> connected;
  {
    std::unique_lock lock(mConnectedMutex);
    connected.swap(mConnected);
    // The sockets are about to be closed.
    mFarewellSaid.wait_for(lock, kPatience, [this] { return mFarewells == 0; });
  }
  for (const auto& [address, connection] : connected) {
    if (connection->TryEnd()) {
      Farewell(connection, eTCPE_CommErr_NotInitialized);
    }
  }
}

void TCPE_Engine::OnConnectionCommand(const TCPE_ReceivedCommand& received) {
  if (const std::string name = mTask->GetConnectingSystemName(received.Command()); !name.empty()) {
    mHistory.SetName(received.Origin()->GetAddress(), name);
  }
}

void TCPE_Engine::OnArrived(TCPE_Connection& connection, TCPE_ReceivedCommand::Kind kind) {
  if (kind != TCPE_QueueLoad::Kind::notice) {
    TCPE_PeerTraffic::AddAlone(connection.Traffic().received.commands, 1);
  }
}

void TCPE_Engine::OnFinished(const ConnectionPointer& connection, TCPE_ReceivedCommand::Kind kind, bool wasHandled) {
  if (kind == TCPE_QueueLoad::Kind::notice) {
    return;
  }
  TCPE_PeerTraffic::Direction& received = connection->Traffic().received;
  TCPE_PeerTraffic::Add(wasHandled ? received.finished : received.refused, 1);
  if (kind == TCPE_QueueLoad::Kind::command) {
    connection->NoteFinished();
  }
  if (connection->IsPaused() && mDelivery->GetQueueLoad(connection->GetAddress()).HasRoomAgain(mLimits) &&
      connection->ClearPaused()) {
    mNetwork->Resume(connection);
  }
}

bool TCPE_Engine::Deliver(ReceivedPointer& received) {
  constexpr std::size_t kLargestBatch = 256; // what is gathered must not wait for long, and comes beyond the bound
  const ConnectionPointer& connection = received->Origin();
  const TCPE_QueueLoad::Kind kind = received->GetKind();
  if (kind == TCPE_QueueLoad::Kind::query &&
      !mDelivery->GetQueueLoad(connection->GetAddress()).HasRoomForQuery(mLimits)) {
    return false;
  }
  if (mBatchOf != connection) {
    DeliverBatch();
    mBatchOf = connection;
  }
  mBatch.Push(std::move(received));
  if (kind != TCPE_QueueLoad::Kind::command || mBatch.Load().Entries() == kLargestBatch) {
    DeliverBatch();
  }
  return true;
}

void TCPE_Engine::DeliverBatch() {
  mDispatcher.EndBatch();
  if (mBatch.IsEmpty()) {
    return;
  }
  const ConnectionPointer connection = std::move(mBatchOf);
  TCPE_QueueLoad load = mDelivery->Deliver(connection->GetAddress(), std::move(mBatch));
  const auto isOverfull = [&] {
    return load.IsOverfull(mLimits) &&
           load.IsOverfull(mLimits, connection->HasWaitingSenders() ? mLimits.queuedBeforeReply : 1);
  };
  if (isOverfull()) {
    mNetwork->Pause(*connection);
    connection->SetPaused();
    // Whoever makes room, or waits for a reply, from now on finds it paused; who did before is found here.
    load = mDelivery->GetQueueLoad(connection->GetAddress());
    if (!isOverfull() && connection->ClearPaused()) {
      mNetwork->Resume(connection);
    }
  }
}

void TCPE_Engine::Handle(TCPE_ReceivedCommand& received) {
  if (!Cmn_HostCall::Run(Cmn_HostCall::Kind::handler, [&] { mTask->DoCommand(received.Command()); })) {
    received.Command()->SetError(eTCPE_CommErr_HandlerFailed);
  }
  if (!mIsStopping) {
    mDispatcher.Finish(received);
  }
}

/// A peer is admitted only when its connect command can be delivered; so what a peer that comes and goes leaves in the
/// queue is bounded though the commands of its coming and going are never dropped.
TCPE_CommErr TCPE_Engine::ExamineConnect(std::uint32_t address, const TCPE_FrameHeader& header,
                                         std::span<const std::byte> payload) {
  if (!Cmn_HostCall::Ask(Cmn_HostCall::Kind::hook, false, [&] { return mDispatcher.IsSound(header, payload); })) {
    return eTCPE_CommErr_MalformedPayload;
  }
  return mDelivery->IsFull(address) ? eTCPE_CommErr_QueueFull : eTCPE_CommErr_None;
}

void TCPE_Engine::ReportNetworkError(ETCPE_NetworkError error, std::uint32_t address) {
  if (mOnNetworkError == nullptr || mIsStopping) {
    return;
  }
  if (mNetwork->IsOnNetworkThread()) {
    DeliverBatch(); // what came before is told before
  }
  mDelivery->DeliverError(error, address);
}
