#include "tcpe/protocol/TCPE_Endpoint.h"

#include <algorithm>
#include <utility>

std::optional<TCPE_Endpoint::Id> TCPE_Endpoint::BeginConnect(std::uint32_t address, TCPE_Time now) {
  if (mOpen.contains(address)) {
    Push({.kind = Event::Kind::connectEnded, .address = address});
    return std::nullopt;
  }
  if (AttemptOf(address) != 0) {
    return std::nullopt;
  }
  if (mOpen.size() >= mConfig.maxConnections) {
    Push({.kind = Event::Kind::connectEnded, .address = address, .error = eTCPE_CommErr_NotConnected});
    return std::nullopt;
  }
  mConnections[++mLastId] = {.address = address, .deadline = now + mConfig.limits.transportConnect};
  return mLastId;
}

void TCPE_Endpoint::TransportConnected(Id id, TCPE_Time now) {
  if (Connection* connection = Find(id)) {
    if (connection->handshakeEnds == 0) {
      connection->handshakeEnds = now + mConfig.limits.handshake;
    }
    AddSession(id, TCPE_Session::Role::initiator, mConfig.makeConnectFrame(connection->address), now);
    PushOutput(id);
  }
}

TCPE_Endpoint::Id TCPE_Endpoint::TransportAccepted(std::uint32_t address, TCPE_Time now) {
  MakeRoom(address, now);
  mConnections[++mLastId] = {.address = address, .openedByPeer = true};
  AddSession(mLastId, TCPE_Session::Role::acceptor, {}, now);
  PushOutput(mLastId);
  return mLastId;
}

/// The one with least proved gives way, among equals one of the address with most, drawn at random: who holds places
/// has to go on working for it, and a system that knows the secret needs one for a few milliseconds.
void TCPE_Endpoint::MakeRoom(std::uint32_t address, TCPE_Time now) {
  std::map<std::uint32_t, std::size_t> taken;
  for (const auto& [id, connection] : mConnections) {
    if (IsHalfOpen(connection)) {
      ++taken[connection.address];
    }
  }
  const bool isOfAll = HalfOpenConnections() >= mConfig.limits.maxHalfOpen;
  const bool isOfAddress = taken[address] >= mConfig.limits.maxHalfOpenPerAddress;
  if (!isOfAll && !isOfAddress) {
    return;
  }
  using Rank = std::pair<bool, std::size_t>;
  std::optional<Rank> first;
  std::vector<Id> equals;
  for (const auto& [id, connection] : mConnections) {
    if (!IsHalfOpen(connection) || (isOfAddress && connection.address != address)) {
      continue;
    }
    const Rank rank(connection.session->HasProved(), mConfig.limits.maxHalfOpen - taken[connection.address]);
    if (!first || rank < *first) {
      first = rank;
      equals.clear();
    }
    if (rank == *first) {
      equals.push_back(id);
    }
  }
  const Id id = equals[Draw(equals.size())];
  NoteFlood(mConnections.at(id).address, isOfAll, now);
  ++mCounts.refusals;
  Close(id);
}

/// Of an address that is marked the host has been told. Others suffer only when the places of all are taken.
void TCPE_Endpoint::NoteFlood(std::uint32_t address, bool isOfAll, TCPE_Time now) {
  if (now >= mFloodUntil) {
    mFloodSince = now;
  }
  mFloodUntil = now + mConfig.limits.floodEnds;
  const bool isWorthIt =
      isOfAll || (now >= mFloodSince + mConfig.limits.floodBegins && !mFailures.IsMarked(address, now));
  if (isWorthIt && now >= mTellFloodsFrom) {
    mTellFloodsFrom = now + mConfig.limits.floodPause;
    Push({.kind = Event::Kind::flooded, .address = address, .networkError = eNetworkError_Flood});
  }
}

void TCPE_Endpoint::TransportEnded(Id id, TCPE_Time now) {
  Connection* connection = Find(id);
  if (connection == nullptr) {
    return;
  }
  if (IsOpen(*connection)) {
    Lose(id, eNetworkError_ConnectionLost, now);
  } else if (connection->openedByPeer) {
    ++mCounts.refusals;
    Close(id);
  } else if (!connection->yielded && !Reopen(id, now)) {
    AttemptFailed(id, eTCPE_CommErr_NotConnected, now);
  }
}

/// A peer that has said hello and then closes without a word has given the place to another newcomer. Somebody may
/// come more often than this system, from its own address even; so it does not wait until the next attempt.
bool TCPE_Endpoint::Reopen(Id id, TCPE_Time now) {
  const Connection& connection = mConnections.at(id);
  const TCPE_Time next = now + mConfig.limits.reopenPause;
  if (!connection.session || connection.session->PeerInstance() == 0 || next >= connection.handshakeEnds) {
    return false;
  }
  const Connection anew{
      .address = connection.address, .deadline = next, .handshakeEnds = connection.handshakeEnds, .reopens = true};
  Close(id);
  mConnections[++mLastId] = anew;
  return true;
}

std::span<std::byte> TCPE_Endpoint::ReceiveSpace(Id id) {
  Connection* connection = Find(id);
  return connection != nullptr && connection->session ? connection->session->ReceiveSpace() : std::span<std::byte>();
}

void TCPE_Endpoint::Received(Id id, std::size_t count, TCPE_Time now) {
  Connection* connection = Find(id);
  if (connection != nullptr && connection->session) {
    connection->session->Received(count, now);
    mToAdvance.push_back(id);
  }
}

void TCPE_Endpoint::Pause(Id id, TCPE_Time now) {
  if (Connection* connection = Find(id); connection != nullptr && IsOpen(*connection)) {
    connection->session->Pause(now);
  }
}

void TCPE_Endpoint::Resume(Id id, TCPE_Time now) {
  if (IsPaused(id)) {
    Find(id)->session->Resume(now);
    Look(id);
  }
}

bool TCPE_Endpoint::IsPaused(Id id) {
  const Connection* connection = Find(id);
  return connection != nullptr && IsOpen(*connection) && connection->session->IsPaused();
}

void TCPE_Endpoint::Look(Id id) { mToAdvance.push_back(id); }

void TCPE_Endpoint::End(Id id, ETCPE_NetworkError error, TCPE_Time now) {
  const Connection* connection = Find(id);
  if (connection == nullptr) {
    return;
  }
  if (!IsOpen(*connection)) {
    TransportEnded(id, now);
  } else if (error != eNetworkError_None) {
    if (error == eNetworkError_PeerTooSlow) {
      connection->session->SayTooSlow();
      PushOutput(id);
    }
    Lose(id, error, now);
  } else {
    const std::uint32_t address = connection->address;
    Close(id);
    DecideWaiting(address, now);
  }
}

void TCPE_Endpoint::MoveTo(std::uint32_t address, TCPE_Time now) {
  if (address == mConfig.localAddress) {
    return;
  }
  mConfig.localAddress = address;
  std::vector<Id> begun; // first: none of them may take the place of a connection that is lost
  std::vector<Id> open;
  for (const auto& [id, connection] : mConnections) {
    (IsOpen(connection) ? open : begun).push_back(id);
  }
  for (const Id id : begun) {
    if (mConnections.at(id).openedByPeer) {
      Close(id);
    } else {
      AttemptFailed(id, eTCPE_CommErr_NotConnected, now);
    }
  }
  for (const Id id : open) {
    Lose(id, eNetworkError_ConnectionLost, now);
  }
}

void TCPE_Endpoint::Tick(TCPE_Time now) {
  std::vector<std::uint32_t> withProofs;
  for (const auto& [id, connection] : mConnections) {
    if (connection.proofDue <= now) {
      withProofs.push_back(connection.address);
    }
    if (connection.session ? connection.session->NextDeadline() <= now + mConfig.limits.heartbeatEarly
                           : connection.deadline <= now) {
      mToAdvance.push_back(id);
    }
  }
  // There may be less to examine than waits; nobody is always first.
  for (; !withProofs.empty(); withProofs.pop_back()) {
    std::swap(withProofs[Draw(withProofs.size())], withProofs.back());
    ExamineProofs(withProofs.back(), now);
  }
}

TCPE_Time TCPE_Endpoint::NextDeadline() const {
  TCPE_Time deadline = kNever;
  for (const auto& [id, connection] : mConnections) {
    deadline = std::min(deadline, DeadlineOf(connection));
  }
  return deadline;
}

TCPE_Time TCPE_Endpoint::DeadlineOf(Id id) const {
  const auto position = mConnections.find(id);
  return position != mConnections.end() ? DeadlineOf(position->second) : kNever;
}

TCPE_Time TCPE_Endpoint::DeadlineOf(const Connection& connection) {
  return connection.session ? std::min(connection.session->NextDeadline(), connection.proofDue) : connection.deadline;
}

std::optional<TCPE_Endpoint::Event> TCPE_Endpoint::NextEvent(TCPE_Time now) {
  while (true) {
    if (!mEvents.empty()) {
      Queued queued = std::move(mEvents.front());
      mEvents.pop_front();
      if (!queued.bytes.empty()) {
        mCurrentBytes = std::move(queued.bytes);
        queued.event.payload = mCurrentBytes;
      }
      return std::move(queued.event);
    }
    if (mToAdvance.empty()) {
      return std::nullopt;
    }
    const Id id = mToAdvance.front();
    if (std::optional<Event> event = Advance(id, now)) {
      return event;
    }
  }
}

std::size_t TCPE_Endpoint::HalfOpenConnections() const {
  return static_cast<std::size_t>(std::count_if(mConnections.begin(), mConnections.end(),
                                                [](const auto& entry) { return IsHalfOpen(entry.second); }));
}

TCPE_Endpoint::Connection* TCPE_Endpoint::Find(Id id) {
  const auto position = mConnections.find(id);
  return position != mConnections.end() ? &position->second : nullptr;
}

TCPE_Endpoint::Id TCPE_Endpoint::AttemptOf(std::uint32_t address) const {
  const auto position = std::find_if(mConnections.begin(), mConnections.end(), [address](const auto& entry) {
    return !entry.second.openedByPeer && entry.second.address == address && !IsOpen(entry.second);
  });
  return position != mConnections.end() ? position->first : 0;
}

/// An attempt that has heard of another instance tries to reach an engine that is no more.
bool TCPE_Endpoint::IsAttemptUnderWay(std::uint32_t address, std::uint64_t instance) const {
  const Id id = AttemptOf(address);
  if (id == 0 || mConnections.at(id).yielded) {
    return false;
  }
  const TCPE_Session* session = mConnections.at(id).session.get();
  return session == nullptr || session->PeerInstance() == 0 || session->PeerInstance() == instance;
}

std::vector<TCPE_Endpoint::Id> TCPE_Endpoint::WaitingFor(std::uint32_t address) const {
  std::vector<Id> waiting;
  for (const auto& [id, connection] : mConnections) {
    if (connection.waitsForProbe && connection.address == address) {
      waiting.push_back(id);
    }
  }
  return waiting;
}

void TCPE_Endpoint::AddSession(Id id, TCPE_Session::Role role, std::vector<std::byte> connectFrame, TCPE_Time now) {
  Connection& connection = mConnections.at(id);
  TCPE_Session::Terms terms{.role = role,
                            .localAddress = mConfig.localAddress,
                            .peerAddress = connection.address,
                            .nonce = mConfig.makeNonce ? mConfig.makeNonce() : TCPE_Hello::Nonce(),
                            .keys = mConfig.keys,
                            .handshakeEnds = connection.handshakeEnds,
                            .connectFrame = std::move(connectFrame)};
  connection.session = std::make_shared<TCPE_Session>(mConfig.limits, mConfig.local, std::move(terms), now);
}

/// Takes one event of the session that is first in the line, and leaves the line when it has no more. A frame is handed
/// on without a copy; everything else goes through the queue.
std::optional<TCPE_Endpoint::Event> TCPE_Endpoint::Advance(Id id, TCPE_Time now) {
  Connection* connection = Find(id);
  if (connection == nullptr || !connection->session) {
    mToAdvance.pop_front();
    if (connection != nullptr) {
      CheckDeadline(id, now);
    }
    return std::nullopt;
  }
  const std::optional<TCPE_Session::Event> event = connection->session->NextEvent(now);
  PushOutput(id);
  if (!event) {
    mToAdvance.pop_front();
    return std::nullopt;
  }
  using Kind = TCPE_Session::Event::Kind;
  switch (event->kind) {
  case Kind::frame:
    if (event->header.type == mConfig.disconnectType && !event->header.Has(kTCPE_Flag_Reply | kTCPE_Flag_ErrorReply)) {
      const std::uint32_t address = connection->address;
      Push({.kind = Event::Kind::disconnected, .id = id, .address = address, .header = event->header},
           {event->payload.begin(), event->payload.end()});
      Close(id);
      DecideWaiting(address, now);
      return std::nullopt;
    }
    return Event{.kind = Event::Kind::frame,
                 .id = id,
                 .address = connection->address,
                 .header = event->header,
                 .payload = event->payload,
                 .isReadAlone = event->isReadAlone};
  case Kind::finished:
    return Event{.kind = Event::Kind::finished, .id = id, .address = connection->address, .finished = event->finished};
  case Kind::challenged:
    connection->proofDue = now;
    ExamineProofs(connection->address, now);
    break;
  case Kind::unproved:
    OnUnproved(id, now);
    break;
  case Kind::connectRequested:
    connection->connectHeader = event->header;
    connection->connectPayload.assign(event->payload.begin(), event->payload.end());
    if (mConfig.keys) {
      mFailures.Forget(connection->address); // it has proved the secret, and the host may ask for that when it decides
    }
    if (mConfig.allowConnect(connection->address)) {
      Decide(id, now);
    } else {
      Refuse(id, eTCPE_CommErr_NotAllowed);
    }
    break;
  case Kind::accepted:
    if (mOpen.size() >= mConfig.maxConnections) { // another one took the last place meanwhile
      AttemptFailed(id, eTCPE_CommErr_NotConnected, now);
      break;
    }
    connection->connectHeader = event->header;
    Open(id, false);
    break;
  case Kind::refused:
    if (connection->openedByPeer) {
      const std::uint32_t address = connection->address;
      ++mCounts.refusals;
      Close(id);
      if (event->error == eTCPE_CommErr_Authentication) { // it requires a secret, and this side has none
        TellOfFailure(address, now);
      }
    } else {
      AttemptFailed(id, event->error, now);
    }
    break;
  case Kind::probeAnswered:
    for (const Id newcomer : WaitingFor(connection->address)) {
      const bool isAnotherSystem =
          mConnections.at(newcomer).session->PeerInstance() != connection->session->PeerInstance();
      Refuse(newcomer, isAnotherSystem ? eTCPE_CommErr_DuplicateAddress : eTCPE_CommErr_AlreadyConnected);
    }
    break;
  case Kind::probeUnanswered:
    Lose(id, eNetworkError_ConnectionLost, now);
    break;
  case Kind::failed:
    Count(*event);
    if (mOpen.contains(connection->address) && mOpen.at(connection->address) == id) {
      Lose(id, event->networkError, now);
    } else if (connection->openedByPeer) {
      ++mCounts.refusals;
      Close(id);
    } else {
      AttemptFailed(id,
                    event->networkError == eNetworkError_Authentication ? eTCPE_CommErr_Authentication
                                                                        : eTCPE_CommErr_NotConnected,
                    now);
    }
    break;
  }
  return std::nullopt;
}

void TCPE_Endpoint::Count(const TCPE_Session::Event& failure) {
  if (failure.networkError == eNetworkError_Authentication) {
    ++mCounts.wrongTags;
  } else if (failure.networkError == eNetworkError_MalformedData) {
    ++(failure.isUnfinished ? mCounts.unfinished : mCounts.malformed);
  }
}

/// Of those that wait one at a time, drawn at random: nobody who offers many has more than his share of the few that
/// are examined.
void TCPE_Endpoint::ExamineProofs(std::uint32_t address, TCPE_Time now) {
  while (true) {
    const TCPE_Time due = mFailures.NextProof(address);
    std::vector<Id> waiting;
    for (auto& [id, connection] : mConnections) {
      if (connection.address == address && connection.proofDue != kNever) {
        connection.proofDue = std::max(due, now);
        waiting.push_back(id);
      }
    }
    if (waiting.empty() || now < due) {
      return;
    }
    const Id id = waiting[Draw(waiting.size())];
    Connection& connection = mConnections.at(id);
    connection.proofDue = kNever;
    const bool isRight = connection.session->ExamineProof();
    PushOutput(id);
    if (isRight) {
      Look(id);
    } else {
      OnUnproved(id, now);
      mFailures.PutOffNextProof(address, now);
    }
  }
}

void TCPE_Endpoint::OnUnproved(Id id, TCPE_Time now) {
  const auto [address, openedByPeer] = std::pair(mConnections.at(id).address, mConnections.at(id).openedByPeer);
  ++(openedByPeer && mFailures.IsMarked(address, now) ? mCounts.turnedAway : mCounts.unproved);
  if (!openedByPeer) {
    mFailures.Add(address, now);
    AttemptFailed(id, eTCPE_CommErr_Authentication, now);
    return;
  }
  ++mCounts.refusals;
  Close(id);
  TellOfFailure(address, now);
}

void TCPE_Endpoint::TellOfFailure(std::uint32_t address, TCPE_Time now) {
  const bool isNew = !mFailures.IsMarked(address, now);
  mFailures.Add(address, now);
  if (!isNew) {
    return;
  }
  const TCPE_Time pause = mConfig.limits.failureReportPause;
  if (mFailureReports.Take(pause, mConfig.limits.failureReports * pause, now)) {
    Push({.kind = Event::Kind::unproved, .address = address, .networkError = eNetworkError_Authentication});
  } else {
    ++mCounts.untold;
  }
}

void TCPE_Endpoint::CheckDeadline(Id id, TCPE_Time now) {
  Connection& connection = mConnections.at(id);
  if (connection.deadline > now) {
    return;
  }
  if (std::exchange(connection.reopens, false)) {
    connection.deadline = connection.handshakeEnds;
    Push({.kind = Event::Kind::open, .id = id, .address = connection.address});
  } else {
    AttemptFailed(id, connection.yielded ? eTCPE_CommErr_AlreadyConnected : eTCPE_CommErr_NotConnected, now);
  }
}

void TCPE_Endpoint::Decide(Id id, TCPE_Time now) {
  Connection& connection = mConnections.at(id);
  const std::uint32_t address = connection.address;
  connection.waitsForProbe = false;
  if (const auto open = mOpen.find(address); open != mOpen.end()) {
    // The peer believes that it is not connected: it was restarted, or it lost the connection before this side did.
    connection.waitsForProbe = true;
    mConnections.at(open->second).session->Probe(now);
    PushOutput(open->second);
    return;
  }
  if (mOpen.size() >= mConfig.maxConnections) {
    Refuse(id, eTCPE_CommErr_Full);
    return;
  }
  if (mConfig.localAddress < address && IsAttemptUnderWay(address, connection.session->PeerInstance())) {
    Refuse(id, eTCPE_CommErr_AlreadyConnected); // both connect at once: the one opened by the lower address survives
    return;
  }
  if (mConfig.examineConnect) {
    const TCPE_CommErr error = mConfig.examineConnect(address, connection.connectHeader, connection.connectPayload);
    if (error != eTCPE_CommErr_None) {
      Refuse(id, error);
      return;
    }
  }
  connection.session->Accept(now);
  Open(id, true);
}

void TCPE_Endpoint::DecideWaiting(std::uint32_t address, TCPE_Time now) {
  for (const Id id : WaitingFor(address)) {
    Decide(id, now);
  }
}

void TCPE_Endpoint::Refuse(Id id, TCPE_CommErr error) {
  ++mCounts.refusals;
  mConnections.at(id).session->Refuse(error);
  PushOutput(id);
  Close(id);
}

/// The opened event goes out before the acceptor's answer, so that the peer is known here before it knows it is
/// admitted.
void TCPE_Endpoint::Open(Id id, bool openedByPeer) {
  Connection& connection = mConnections.at(id);
  const std::uint32_t address = connection.address;
  mOpen[address] = id;
  Push({.kind = Event::Kind::opened,
        .id = id,
        .address = address,
        .header = connection.connectHeader,
        .session = connection.session,
        .openedByPeer = openedByPeer},
       std::exchange(connection.connectPayload, {}));
  PushOutput(id);
  Look(id);
  Push({.kind = Event::Kind::connectEnded, .address = address});
  if (const Id attempt = AttemptOf(address); attempt != 0) {
    Close(attempt);
  }
}

void TCPE_Endpoint::AttemptFailed(Id id, TCPE_CommErr error, TCPE_Time now) {
  Connection& connection = mConnections.at(id);
  const std::uint32_t address = connection.address;
  if (error == eTCPE_CommErr_AlreadyConnected && !connection.yielded) {
    Push({.kind = Event::Kind::close, .id = id});
    connection.session.reset();
    connection.yielded = true;
    // As long as the peer's own attempt may take.
    connection.deadline = now + mConfig.limits.transportConnect + mConfig.limits.handshake;
    return;
  }
  Close(id);
  Push({.kind = Event::Kind::connectEnded, .address = address, .error = error});
}

void TCPE_Endpoint::Lose(Id id, ETCPE_NetworkError error, TCPE_Time now) {
  const std::uint32_t address = mConnections.at(id).address;
  Push({.kind = Event::Kind::lost, .id = id, .address = address, .networkError = error});
  Close(id);
  DecideWaiting(address, now);
}

void TCPE_Endpoint::Close(Id id) {
  const auto position = mConnections.find(id);
  if (const auto open = mOpen.find(position->second.address); open != mOpen.end() && open->second == id) {
    mOpen.erase(open);
  }
  mConnections.erase(position);
  Push({.kind = Event::Kind::close, .id = id});
}

void TCPE_Endpoint::PushOutput(Id id) {
  const Connection& connection = mConnections.at(id);
  if (connection.session && !connection.session->Output().empty()) {
    Push({.kind = Event::Kind::send, .id = id}, std::exchange(connection.session->Output(), {}));
  }
}

void TCPE_Endpoint::Push(Event event, std::vector<std::byte> bytes) {
  mEvents.push_back({std::move(event), std::move(bytes)});
}
