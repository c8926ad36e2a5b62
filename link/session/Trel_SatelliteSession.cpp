#include "link/session/Trel_SatelliteSession.h"

#include <algorithm>
#include <utility>
#include <variant>

namespace {

// Microseconds.
constexpr Trel_SessionTime kReasonDelay = 100'000; // by which the reason of a refusal may come after the refusal
constexpr Trel_SessionTime kLongestSequence = 20'000'000;
constexpr Trel_SessionTime kQuietTime = 200'000; // legacy: the master sends its ConnectTo in one go

constexpr std::size_t kMostSystems = 129; // of a link

} // namespace

Trel_SatelliteSession::Trel_SatelliteSession(const Config& config)
    : Trel_SessionCore(config), mPause(config.firstPause, config.longestPause),
      mMesh({.isCurrentNumbering = config.isCurrentNumbering,
             .firstPause = config.firstPause,
             .longestPause = config.longestPause},
            *this) {}

void Trel_SatelliteSession::Begin(Time /*now*/) {
  if (!IsRunning()) {
    BeginShared();
  }
  if (mPhase == Phase::away) {
    mPause.Reset();
    mToldNoMaster.reset();
    BeginAttempt();
  }
}

void Trel_SatelliteSession::Resume(Time now) {
  if (IsRunning()) {
    Begin(now);
  }
}

void Trel_SatelliteSession::End(Time now) {
  if (IsRunning()) {
    EndShared(now);
    if (IsConnectedToMaster() || mPhase == Phase::ending) {
      Disconnect(mMaster);
    }
    EndLink(now);
    mPhase = Phase::away;
    mIsRunning = false;
  }
}

Trel_SessionCore::Time Trel_SatelliteSession::NextDeadline() const {
  Time next = SharedDeadline();
  if (mPhase == Phase::joining) {
    next = std::min(next, WhenJoined());
  } else if (mPhase == Phase::failed || mPhase == Phase::ending || mPhase == Phase::waiting) {
    next = std::min(next, mDue);
  }
  return IsConnectedToMaster() ? std::min(next, mMesh.NextDeadline()) : next;
}

void Trel_SatelliteSession::Tick(Time now) {
  if (!IsRunning()) {
    return;
  }
  TickShared(now);
  if (mPhase == Phase::failed && mDue <= now) {
    Tell({.kind = Kind::connectFailed,
          .reason = mMaster == Self() ? Reason::isThisSystem
                    : !mHasAddress    ? Reason::noAddress
                                      : Reason::none,
          .system = Describe(mMaster)});
    Wait(mPause.Next(Random()), now);
  } else if (mPhase == Phase::ending && mDue <= now) {
    NotLinkedInTime(now);
  } else if (mPhase == Phase::waiting && mDue <= now) {
    BeginAttempt();
  }
  GoOn(now);
}

/// What is due in a link, or on the way into it.
void Trel_SatelliteSession::GoOn(Time now) {
  if (!IsConnectedToMaster()) {
    return;
  }
  TakeUpWhatWasTold();
  mMesh.Tick(now);
  if (mPhase == Phase::joining && WhenJoined() <= now) {
    Complete(now);
  }
}

// --- finding and connecting -----------------------------------------------------------------------------------------

void Trel_SatelliteSession::BeginAttempt() {
  if (mConfig.masterAddress != 0) {
    ConnectTo(mConfig.masterAddress);
    return;
  }
  mPhase = Phase::searching;
  if (!mToldNoMaster) {
    Tell({.kind = Kind::searching});
  }
  Do(Action::Search{});
}

void Trel_SatelliteSession::SearchEnded(const std::vector<Event::System>& masters, Time now) {
  if (mPhase != Phase::searching) {
    return;
  }
  std::vector<Event::System> others = masters;
  std::sort(others.begin(), others.end(), [](const auto& a, const auto& b) { return a.address < b.address; });
  const auto chosen = std::find_if(others.begin(), others.end(), [](const auto& master) { return master.isAvailable; });
  if (chosen == others.end()) {
    const Reason reason = mHasAddress ? Reason::none : Reason::noAddress;
    if (std::exchange(mToldNoMaster, reason) != reason) {
      Tell({.kind = Kind::noMaster, .reason = reason, .others = others});
    }
    Wait(mPause.Next(Random()), now);
    return;
  }
  mToldNoMaster.reset();
  const Event::System master = *chosen;
  others.erase(chosen);
  Tell({.kind = Kind::masterFound, .system = master, .others = others});
  ConnectTo(master.address);
}

void Trel_SatelliteSession::ConnectTo(std::uint32_t master) {
  mMaster = master;
  mPhase = Phase::connecting;
  mTold = {};
  mEarlyEnding.reset();
  ++mAttempts;
  Tell({.kind = Kind::connecting, .system = Describe(master)});
  Do(Action::Connect{master});
}

void Trel_SatelliteSession::ConnectEnded(std::uint32_t address, std::uint64_t instance, Time now) {
  const bool isConnected = instance != 0;
  if (address != mMaster || mAttempts == 0) {
    mMesh.ConnectEnded(address, isConnected, now);
    GoOn(now);
    return;
  }
  if (--mAttempts > 0) {
    return; // of an attempt that was given up; the one after it counts
  }
  if (mPhase != Phase::connecting) {
    if (isConnected) {
      Disconnect(address);
    }
    return;
  }
  if (!isConnected) {
    mPhase = Phase::failed;
    mDue = now + kReasonDelay;
    if (mEarlyEnding) {
      MasterGone(*mEarlyEnding, now);
    }
    return;
  }
  mPhase = Phase::joining;
  mDue = now + kLongestSequence;
  if (mClockAddress != address || mClockInstance != instance) {
    ClockReset(now);
    mClockAddress = address;
    mClockInstance = instance;
  }
  Tell({.kind = Kind::connected, .system = Describe(address)});
  GoOn(now);
}

Trel_SessionCore::Time Trel_SatelliteSession::WhenJoined() const {
  if (IsCurrent()) {
    return mTold.allConnectionsComplete ? 0 : mDue;
  }
  const bool isTold = mTold.list && mTold.connectTo.empty() && mMesh.IsSettled();
  return isTold ? std::min(mTold.lastOfSequence + kQuietTime, mDue) : mDue;
}

void Trel_SatelliteSession::Complete(Time now) {
  if (now >= mDue) {
    NotLinkedInTime(now);
    return;
  }
  mPhase = Phase::completing;
  mCompletion = NextRequest();
  Send({mMaster}, Message::ConnectComplete{}, mCompletion);
}

void Trel_SatelliteSession::SendOfLinkEnded(Request request, std::uint32_t /*address*/, Outcome outcome, Time now) {
  if (request == mCompletion && mPhase == Phase::completing) {
    if (outcome == Outcome::confirmed) {
      Linked();
      GoOn(now);
    } else {
      mPhase = Phase::ending;
      mDue = now + kReasonDelay;
    }
  } else if (request == mControlRequest && IsOwnRequest(mControlToken)) {
    CheckOwnRequest(now);
    // No answer may be one that is late: then the announcement comes all the same.
    if (outcome == Outcome::refused && IsOwnRequest(mControlToken)) {
      EndOwnRequest(Answer::busy);
    }
  }
}

void Trel_SatelliteSession::Linked() {
  mPhase = Phase::linked;
  mPause.Reset();
  Tell({.kind = Kind::linked, .system = Describe(mMaster)});
  LinkedWith(mMaster);
}

void Trel_SatelliteSession::NotLinkedInTime(Time now) {
  Disconnect(mMaster);
  EndLink(now);
  Tell({.kind = Kind::connectFailed, .reason = Reason::notInTime, .system = Describe(mMaster)});
  Wait(mPause.Next(Random()), now);
}

void Trel_SatelliteSession::MasterGone(const Ending& ending, Time now) {
  if (mPhase == Phase::connecting) {
    mEarlyEnding = ending;
    return;
  }
  if (!IsConnectedToMaster() && mPhase != Phase::ending && mPhase != Phase::failed) {
    return;
  }
  if (mPhase != Phase::linked && ending.kind == Kind::left) {
    TellRefusal(now);
    return;
  }
  Event event = {.kind = ending.kind, .error = ending.error, .system = Describe(mMaster)};
  event.kind = mPhase == Phase::failed ? Kind::refused : ending.kind;
  event.reason = ending.kind == Kind::lost ? Reason::networkError : Reason::none;
  EndLink(now);
  Tell(std::move(event));
  Wait(mPause.Next(Random()), now);
}

void Trel_SatelliteSession::TellRefusal(Time now) {
  const std::vector<System> listed = GetListed();
  const bool isOurs =
      std::any_of(listed.begin(), listed.end(), [this](const System& system) { return system.address == Self(); });
  const bool isClash = !listed.empty() && !isOurs;
  Event event = {.kind = Kind::refused, .system = Describe(mMaster)};
  event.reason = isClash ? Reason::identifierUsed : isOurs ? Reason::endedEarly : Reason::notAdmitted;
  if (isClash) {
    event.other = Described(listed.front());
    event.other.uniqueID = mSurroundings.self.uniqueID;
  }
  EndLink(now);
  Tell(std::move(event));
  Wait(isClash ? mPause.Longest(Random()) : mPause.Next(Random()), now);
}

void Trel_SatelliteSession::EndLink(Time now) {
  mPhase = Phase::away;
  LoseLink(now);
  mMesh.LeaveAll();
  GoneFromAll();
}

void Trel_SatelliteSession::Wait(Time pause, Time now) {
  if (!mConfig.reconnects) {
    mPhase = Phase::away;
    return;
  }
  mPhase = Phase::waiting;
  mDue = now + pause;
  Tell({.kind = Kind::waiting, .value = pause, .system = Describe(mMaster)});
}

// --- what the master tells ------------------------------------------------------------------------------------------

void Trel_SatelliteSession::ReceivedOfLink(std::uint32_t from, const Message::Any& message, Time now) {
  std::visit([&](const auto& received) { On(from, received, now); }, message);
  GoOn(now);
}

void Trel_SatelliteSession::On(std::uint32_t from, const Message::ListSystems& message, Time now) {
  if (!IsFromMaster(from)) {
    return;
  }
  mTold.list = message.systems;
  if (mTold.list->size() > kMostSystems) {
    mTold.list->resize(kMostSystems);
  }
  std::erase_if(mTold.identifiers, [this](const auto& told) {
    return std::none_of(mTold.list->begin(), mTold.list->end(),
                        [&told](const System& system) { return system.address == told.first; });
  });
  mTold.isListNew = true;
  mTold.lastOfSequence = now;
}

void Trel_SatelliteSession::On(std::uint32_t from, const Message::ConnectTo& message, Time now) {
  const std::uint32_t to = message.system.address;
  if (IsFromMaster(from) && to != 0 && to != mMaster && to != Self()) {
    if (mTold.connectTo.size() < kMostSystems) {
      mTold.connectTo[to] = message.system;
    }
    mTold.lastOfSequence = now;
  }
}

void Trel_SatelliteSession::On(std::uint32_t from, const Message::AllConnectionsComplete& /*message*/, Time /*now*/) {
  mTold.allConnectionsComplete = mTold.allConnectionsComplete || IsFromMaster(from);
}

void Trel_SatelliteSession::On(std::uint32_t from, const Message::SetMasterSystem& message, Time /*now*/) {
  if (IsFromMaster(from)) {
    Do(Action::SetMaster{message.address});
  }
}

void Trel_SatelliteSession::On(std::uint32_t from, const Message::SetOrderNumber& message, Time /*now*/) {
  if (!IsFromMaster(from)) {
    return;
  }
  const bool isOurs = IsCurrent() ? message.uniqueID == 0 || message.uniqueID == mSurroundings.self.uniqueID
                                  : message.address == 0 || message.address == Self();
  if (isOurs) {
    Tell({.kind = Kind::orderNumber, .value = message.place, .system = Described(mSurroundings.self)});
  } else if (IsCurrent()) {
    for (const System& system : GetListed()) {
      if (system.place == message.place && system.address != Self()) {
        mTold.identifiers[system.address] = message.uniqueID;
      }
    }
  }
}

void Trel_SatelliteSession::TakeUpWhatWasTold() {
  mMesh.SetPort(mSurroundings.self.port);
  for (const auto& [address, system] : std::exchange(mTold.connectTo, {})) {
    mMesh.ConnectTo(system, IsListed(address));
  }
  if (std::exchange(mTold.isListNew, false)) {
    mMesh.Listed(*mTold.list);
    Tell({.kind = Kind::systems, .value = static_cast<std::int64_t>(mTold.list->size())});
  }
}

void Trel_SatelliteSession::On(std::uint32_t from, const Message::SetSystemName& message, Time /*now*/) {
  bool isNews = false;
  if (mTold.list) {
    for (System& system : *mTold.list) {
      isNews = isNews || (system.address == from && system.name != message.name);
      system.name = system.address == from ? message.name : system.name;
    }
  }
  if (isNews) {
    Tell({.kind = Kind::named, .system = Describe(from)});
  }
}

// --- who comes and goes ---------------------------------------------------------------------------------------------

void Trel_SatelliteSession::Connected(const System& peer, std::uint64_t /*instance*/, Time /*now*/) {
  mState.Forget(peer.address);
  if (!IsRunning()) {
    Disconnect(peer.address);               // what it tells now would be missing later
  } else if (!IsFromMaster(peer.address)) { // by the sequence it is this system that connects to its master
    mMesh.Accepted(peer);
  }
}

void Trel_SatelliteSession::Heard(std::uint32_t address, std::optional<Time> silence, Time now) {
  mMesh.Heard(address, silence.has_value(), now);
  GoOn(now);
}

void Trel_SatelliteSession::On(std::uint32_t from, const Message::DoConnectTo& message, Time /*now*/) {
  const std::int32_t to = message.uniqueIDTo;
  Send({from}, Message::DoConnectToComplete{to == 0 || to == mSurroundings.self.uniqueID});
}

void Trel_SatelliteSession::On(std::uint32_t from, const Message::DoConnectToComplete& message, Time now) {
  mMesh.Answered(from, message.success, now);
}

void Trel_SatelliteSession::On(std::uint32_t from, const Message::DisconnectFrom& message, Time now) {
  if (IsFromMaster(from)) {
    mMesh.Leave(message.address, message.uniqueID);
    GoneFrom(message.address, now);
  }
}

void Trel_SatelliteSession::Disconnected(std::uint32_t address, Time now) {
  if (!IsRunning()) {
    return;
  }
  GoneFrom(address, now);
  if (IsFromMaster(address)) {
    LoseLink(now);
    MasterGone({.kind = Kind::left}, now);
  } else {
    mMesh.Gone(address, Reason::none, eNetworkError_None, now);
    GoOn(now);
  }
}

void Trel_SatelliteSession::NetworkError(std::uint32_t address, ETCPE_NetworkError error, bool isConnected, Time now) {
  if (IsRunning() && error == eNetworkError_Flood) {
    TellNetworkError(address, error);
    return;
  }
  if (!IsRunning() || isConnected) {
    return; // about another connection than the one that stands
  }
  GoneFrom(address, now);
  if (IsFromMaster(address)) {
    LoseLink(now);
    MasterGone({.kind = Kind::lost, .error = error}, now);
  } else if (mMesh.Knows(address)) {
    mMesh.Gone(address, Reason::networkError, error, now);
    GoOn(now);
  } else {
    TellNetworkError(address, error);
  }
}

void Trel_SatelliteSession::Report(const System& peer, bool success) {
  if (IsCurrent()) {
    Send({mMaster}, Message::ConnectToComplete{peer.address, peer.port, success});
  } else if (!success) {
    Send({mMaster}, Message::ConnectionFailed{peer.address});
  }
}

void Trel_SatelliteSession::TellMesh(const System& peer, Kind kind, Reason reason, ETCPE_NetworkError error) {
  Tell({.kind = kind,
        .reason = reason,
        .error = error,
        .system = Described(peer),
        .other = Described(mSurroundings.self)});
  if (kind == Kind::meshConnected) {
    MeetInMesh(peer.address);
  } else {
    mState.Forget(peer.address);
  }
}

// --- control --------------------------------------------------------------------------------------------------------

void Trel_SatelliteSession::On(std::uint32_t from, const Message::SystemInControl& message, Time now) {
  if (!IsFromMaster(from)) {
    return;
  }
  if (mPhase == Phase::completing) {
    Linked(); // only who is linked hears of control: the confirmation is on its way
  }
  if (!IsLinked()) {
    return; // meant for what was here before
  }
  const std::uint32_t holder = IsCurrent() ? AddressOf(message.uniqueID) : message.address;
  const bool isHere = holder != 0 && holder == Self();
  const bool isNews = mControl.Announce(holder, isHere);
  CheckOwnRequest(now);
  if (isNews) {
    Event event = {.kind = Kind::control, .system = Describe(holder)};
    event.system.uniqueID = message.uniqueID;
    Tell(std::move(event));
  }
}

void Trel_SatelliteSession::ControlAsked(std::uint32_t from, Token token, Time /*now*/) {
  if (!IsRunning() || !IsFromMaster(from) || !AskToLetGo(from, token)) {
    Do(Action::Answer{token, Answer::busy});
  }
}

void Trel_SatelliteSession::HostAnswered(Token token, bool agrees, Time /*now*/) {
  if (const std::optional<bool> letsGo = LetGo(token, agrees)) {
    Do(Action::Answer{token, *letsGo ? Answer::granted : Answer::busy});
  }
}

void Trel_SatelliteSession::RequestControl(Token token, Time now) {
  if (!IsLinked()) {
    Do(Action::Answer{token, Answer::noLink});
  } else if (BeginOwnRequest(token, now)) {
    mControlToken = token;
    mControlRequest = NextRequest();
    Send({mMaster}, Message::RequestControl{}, mControlRequest, token);
  }
}

// --- the host's wishes ----------------------------------------------------------------------------------------------

bool Trel_SatelliteSession::DisconnectSystem(std::uint32_t address, Time now) {
  if (!IsRunning() || !IsFromMaster(address)) {
    return false;
  }
  const bool wasConnected = IsConnectedToMaster() || mPhase == Phase::ending;
  const Event::System master = Describe(address);
  Disconnect(address);
  EndLink(now);
  if (wasConnected) {
    Tell({.kind = Kind::left, .reason = Reason::unlinkedHere, .system = master});
  }
  return true;
}

void Trel_SatelliteSession::Renamed(Time /*now*/) {
  if (IsConnectedToMaster()) {
    std::set<std::uint32_t> addresses = mMesh.GetConnectedAddresses();
    addresses.insert(mMaster);
    Send(std::move(addresses), Message::SetSystemName{mSurroundings.self.name});
  }
}

// --- who is there ---------------------------------------------------------------------------------------------------

std::vector<Trel_SessionSystem> Trel_SatelliteSession::GetSystems() const {
  return IsConnectedToMaster() ? GetListed() : std::vector<System>();
}

std::set<std::uint32_t> Trel_SatelliteSession::GetLinkedAddresses() const {
  std::set<std::uint32_t> linked;
  if (IsConnectedToMaster()) {
    linked = mMesh.GetConnectedAddresses();
  }
  if (IsLinked()) {
    linked.insert(mMaster);
  }
  return linked;
}

std::vector<Trel_SessionSystem> Trel_SatelliteSession::GetListed() const {
  std::vector<System> systems = mTold.list.value_or(std::vector<System>());
  for (System& system : systems) {
    if (system.address == Self()) {
      system.uniqueID = mSurroundings.self.uniqueID;
    }
    if (const auto told = mTold.identifiers.find(system.address); told != mTold.identifiers.end()) {
      system.uniqueID = told->second;
    }
  }
  std::stable_sort(systems.begin(), systems.end(), [](const System& a, const System& b) { return a.place < b.place; });
  return systems;
}

bool Trel_SatelliteSession::IsListed(std::uint32_t address) const {
  return mTold.list && std::any_of(mTold.list->begin(), mTold.list->end(),
                                   [address](const System& system) { return system.address == address; });
}

std::uint32_t Trel_SatelliteSession::AddressOf(std::int32_t uniqueID) const {
  if (uniqueID == 0) {
    return 0;
  }
  for (const System& system : GetListed()) {
    if (system.uniqueID == uniqueID) {
      return system.address;
    }
  }
  return uniqueID == mSurroundings.self.uniqueID ? Self() : 0;
}

Trel_LinkEvent::System Trel_SatelliteSession::Describe(std::uint32_t address) const {
  for (const System& system : GetListed()) {
    if (address != 0 && system.address == address) {
      return Described(system);
    }
  }
  return {.address = address};
}
