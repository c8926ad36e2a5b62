#include "link/session/Trel_MasterSession.h"

#include <algorithm>
#include <utility>
#include <variant>

namespace {

// Microseconds.
constexpr Trel_SessionTime kListDelay = 20'000;               // gathers the changes of systems that come together
constexpr Trel_SessionTime kLongestMeshSequence = 15'000'000; // two attempts to connect to a dead system
// A satellite gives up sooner: what is still there then does not know the sequence.
constexpr Trel_SessionTime kLongestCompletion = 20'000'000;
// For what is on its way when a connection dies, and until the host of the other end has been told.
constexpr Trel_SessionTime kHandlingTime = 250'000;
// The two ends of a dead connection notice within the period of the heartbeat of each other.
constexpr Trel_SessionTime kLostHolderWait = 1'000'000 + kHandlingTime;
// ... but where this system has moved away or ended it, the other end may notice by its silence alone.
constexpr Trel_SessionTime kLeftHolderWait = 3'000'000 + kHandlingTime;
// By then a dead system has been silent for too long, or a living one has said something.
constexpr Trel_SessionTime kLongestDoubt = 3'500'000;
constexpr Trel_SessionTime kRivalCheck = 100'000;
constexpr Trel_SessionTime kSearchPause = 10'000'000;

constexpr std::size_t kMostEarly = 128;
constexpr std::size_t kMostOtherMasters = 8; // beyond these the host has heard enough
constexpr int kMissedSearches = 3;           // who has missed them is gone; one answer may be lost

} // namespace

void Trel_MasterSession::Notice(const Surroundings& surroundings, Time now) {
  const std::uint32_t before = Self();
  Trel_SessionCore::Notice(surroundings, now);
  if (mLink && Self() != before) {
    FollowAddress(before, now);
    Settle(now);
  }
}

void Trel_MasterSession::Begin(Time now) {
  if (IsRunning()) {
    return;
  }
  mHasRun = true;
  mLink.emplace(Link{Trel_SystemRoster(mSurroundings.self), Trel_ControlArbiter(Self())});
  // Alone, the master is in control from the start.
  mLink->arbiter.BeginAnnouncement();
  mControl.Announce(Self(), true);
  mLink->arbiter.Announced();
  BeginShared();
  Tell({.kind = Kind::control, .system = Described(mSurroundings.self)});
  for (const auto& [address, newcomer] : std::exchange(mEarly, {})) {
    Admit(newcomer, now);
  }
  Search(now);
}

void Trel_MasterSession::End(Time now) {
  if (!IsRunning()) {
    return;
  }
  EndShared(now);
  mIsRunning = false;
  std::set<std::uint32_t> connected;
  for (const System& system : mLink->roster.GetSystems()) {
    connected.insert(system.address);
  }
  for (const auto& [address, applicant] : mApplicants) {
    connected.insert(address);
  }
  connected.erase(Self());
  if (mTransfer) {
    AnswerAsker(std::exchange(mTransfer, std::nullopt)->token, false, now);
  }
  mLink.reset();
  LoseLink(now);
  GoneFromAll();
  for (const std::uint32_t address : connected) {
    Disconnect(address);
  }
  mApplicants.clear();
  mJoining.clear();
  mAnnouncement.reset();
  mListsDue.reset();
  mWaitEnds.reset();
  mOtherMasters.clear();
}

Trel_SessionCore::Time Trel_MasterSession::NextDeadline() const {
  Time next =
      std::min({SharedDeadline(), mListsDue.value_or(kNever), mWaitEnds.value_or(kNever), mLink ? mSearchDue : kNever});
  for (const auto& [address, joining] : mJoining) {
    next = std::min(next, joining.deadline);
  }
  for (const auto& [address, applicant] : mApplicants) {
    next = std::min(next, applicant.check);
  }
  return next;
}

void Trel_MasterSession::Tick(Time now) {
  if (!mLink) {
    return;
  }
  for (const auto& [address, applicant] : std::map(mApplicants)) {
    if (applicant.check <= now) {
      Decide(applicant, now);
    }
  }
  std::vector<std::uint32_t> overdue;
  for (const auto& [address, joining] : mJoining) {
    if (joining.deadline <= now) {
      overdue.push_back(address);
    }
  }
  for (const std::uint32_t address : overdue) {
    Joining& joining = mJoining.at(address);
    if (joining.isTold) {
      Disconnect(address);
      Remove(address, {.kind = Kind::left, .reason = Reason::notInTime}, now);
    } else {
      joining.connectsTo.clear();
      CompleteIfConnected(address, now);
    }
  }
  if (mListsDue && *mListsDue <= now) {
    SendLists();
  }
  if (mSearchDue <= now) {
    Search(now);
  }
  Settle(now);
  TickShared(now);
}

void Trel_MasterSession::Search(Time now) {
  constexpr std::uint64_t kSpread = kSearchPause / 4;
  mSearchDue = now + kSearchPause - static_cast<Time>(Random() % kSpread);
  Do(Action::Search{});
}

void Trel_MasterSession::SearchEnded(const std::vector<Event::System>& masters, Time /*now*/) {
  if (!mLink) {
    return;
  }
  for (auto& [address, missed] : mOtherMasters) {
    ++missed;
  }
  std::erase_if(mOtherMasters, [](const auto& known) { return known.second > kMissedSearches; });
  for (const Event::System& master : masters) {
    const bool isKnown = mOtherMasters.contains(master.address);
    if (master.address == Self() || (!isKnown && mOtherMasters.size() >= kMostOtherMasters)) {
      continue;
    }
    mOtherMasters[master.address] = 0;
    if (!isKnown) {
      Tell({.kind = Kind::otherMaster, .system = master});
    }
  }
}

void Trel_MasterSession::FollowAddress(std::uint32_t before, Time now) {
  mLink->roster.SetMasterAddress(Self());
  mConductor.Moved(before);
  for (const System& system : mLink->roster.GetSystems()) {
    if (system.address != Self()) {
      mLink->arbiter.SystemGone(system.address, true);
      Remove(system.address, {.kind = Kind::lost, .reason = Reason::addressChanged}, now);
    }
  }
  mApplicants.clear();
  mLink->arbiter.SetMaster(Self());
  if (mAnnouncement && mAnnouncement->holder.address == before) {
    mAnnouncement->holder.address = Self();
  }
  mLeftUntil = now + kLeftHolderWait;
  mWaitEnds.reset();
  const bool hasControl = mLink->arbiter.GetHolder() == Self() && mControl.GetHolder() == before;
  mControl.Announce(hasControl ? Self() : 0, hasControl);
  Tell({.kind = Kind::control,
        .reason = Reason::addressChanged,
        .system = hasControl ? Described(mSurroundings.self) : Event::System(),
        .other = Described(mSurroundings.self)});
  CheckOwnRequest(now);
}

// --- who comes ------------------------------------------------------------------------------------------------------

void Trel_MasterSession::Connected(const System& peer, std::uint64_t /*instance*/, Time now) {
  System newcomer = peer;
  newcomer.port = mSurroundings.self.port; // the same on all systems
  newcomer.type = eTCPE_SystemType_Satellite;
  if (mLink) {
    Admit(newcomer, now);
    Settle(now);
  } else if (mHasRun) {
    Disconnect(newcomer.address); // it would wait for nothing
  } else if (mEarly.size() < kMostEarly) {
    mEarly[newcomer.address] = newcomer;
  }
}

void Trel_MasterSession::Admit(const System& newcomer, Time now) {
  // Whatever it was before, it comes without control.
  mLink->arbiter.SystemGone(newcomer.address, false);
  Remove(newcomer.address, {.kind = Kind::lost, .reason = Reason::connectedAnew}, now);
  mApplicants.erase(newcomer.address);
  Decide({.system = newcomer, .since = now}, now);
}

void Trel_MasterSession::Decide(const Applicant& applicant, Time now) {
  const System newcomer = applicant.system;
  const auto admission = mLink->roster.Admit(newcomer, mSurroundings.allowsSatellites, mSurroundings.maxSatellites);
  using Verdict = Trel_SystemRoster::Verdict;
  const std::uint32_t rival = admission.mSystem.address;
  const bool isSameRival = rival == applicant.rival;
  if (admission.mVerdict == Verdict::identifierUsed && rival != Self() && now - applicant.since < kLongestDoubt &&
      !(isSameRival && applicant.isRivalAlive)) {
    mApplicants.insert_or_assign(
        newcomer.address,
        Applicant{.system = newcomer, .since = applicant.since, .check = now + kRivalCheck, .rival = rival});
    Do(Action::Listen{rival});
    return;
  }
  mApplicants.erase(newcomer.address);
  if (admission.mVerdict == Verdict::admitted) {
    Tell({.kind = Kind::connected, .system = Described(newcomer)});
    BeginSequence(admission.mSystem, now);
  } else {
    Refuse(newcomer, admission);
  }
}

void Trel_MasterSession::Heard(std::uint32_t address, std::optional<Time> silence, Time now) {
  if (!silence) {
    return; // it is gone, and the news of that is on its way
  }
  for (auto& [newcomer, applicant] : mApplicants) {
    applicant.isRivalAlive = applicant.isRivalAlive || (applicant.rival == address && *silence < now - applicant.since);
  }
}

void Trel_MasterSession::Refuse(const System& newcomer, const Trel_SystemRoster::Admission& admission) {
  Event event = {.kind = Kind::refused, .system = Described(newcomer)};
  switch (admission.mVerdict) {
  case Trel_SystemRoster::Verdict::admitted:
    return;
  case Trel_SystemRoster::Verdict::notAllowed:
    event.reason = Reason::notAllowed;
    break;
  case Trel_SystemRoster::Verdict::full:
    event.reason = Reason::full;
    event.value = mSurroundings.maxSatellites;
    break;
  case Trel_SystemRoster::Verdict::identifierUsed:
    event.reason = Reason::identifierUsed;
    event.other = Described(admission.mSystem);
    // By a list without it the newcomer learns who the rival is.
    Send({newcomer.address}, Message::ListSystems{{admission.mSystem}});
    break;
  }
  Disconnect(newcomer.address);
  Tell(std::move(event));
}

void Trel_MasterSession::BeginSequence(const System& satellite, Time now) {
  const std::uint32_t address = satellite.address;
  const std::vector<System> systems = mLink->roster.GetSystems();
  Joining& joining = mJoining[address];
  joining = {.connectsTo = {}, .deadline = now + kLongestMeshSequence, .listChanges = mListChanges};

  Send({address}, Message::SetMasterSystem{Self()});
  Send({address}, Message::SetOrderNumber{satellite.place, address, satellite.uniqueID});
  Send({address}, Message::ListSystems{systems});
  if (mConfig.wantsMesh) {
    // Whoever was admitted later connects, so each pair connects once.
    for (const System& other : systems) {
      if (other.address != address && other.address != Self()) {
        joining.connectsTo.insert(other.address);
        Send({address}, Message::ConnectTo{other});
      }
    }
  }
  Tell({.kind = Kind::orderNumber, .value = satellite.place, .system = Described(satellite)});
  CompleteIfConnected(address, now);
}

void Trel_MasterSession::ReceivedOfLink(std::uint32_t from, const Message::Any& message, Time now) {
  if (mLink) {
    std::visit([&](const auto& received) { On(from, received, now); }, message);
    Settle(now);
  }
}

void Trel_MasterSession::On(std::uint32_t from, const Message::ConnectToComplete& message, Time now) {
  ConnectedTo(from, message.address, message.success, now);
}

void Trel_MasterSession::On(std::uint32_t from, const Message::ConnectionFailed& message, Time now) {
  ConnectedTo(from, message.address, false, now);
}

void Trel_MasterSession::ConnectedTo(std::uint32_t satellite, std::uint32_t to, bool success, Time now) {
  const auto joining = mJoining.find(satellite);
  if (joining == mJoining.end() || joining->second.connectsTo.erase(to) == 0) {
    return;
  }
  Tell(
      {.kind = success ? Kind::meshConnected : Kind::meshFailed, .system = Describe(satellite), .other = Describe(to)});
  CompleteIfConnected(satellite, now);
}

void Trel_MasterSession::CompleteIfConnected(std::uint32_t satellite, Time now) {
  const auto joining = mJoining.find(satellite);
  if (joining == mJoining.end() || joining->second.isTold || !joining->second.connectsTo.empty()) {
    return;
  }
  joining->second.isTold = true;
  joining->second.deadline = now + kLongestCompletion;
  if (IsCurrent()) {
    Send({satellite}, Message::AllConnectionsComplete{});
  }
}

void Trel_MasterSession::On(std::uint32_t from, const Message::ConnectComplete& /*message*/, Time now) {
  if (!mLink->roster.SetLinked(from)) {
    return;
  }
  const bool isListOld = mJoining[from].listChanges != mListChanges;
  mJoining.erase(from); // in the legacy numbering it does not wait for the outcome of each connection
  Tell({.kind = Kind::linked, .system = Describe(from)});
  LinkedWith(from);
  if (isListOld) { // who is in control is told by its place there
    Send({from}, Message::ListSystems{mLink->roster.GetSystems()});
  }
  if (mAnnouncement) {
    mAnnouncement->linkedMeanwhile.insert(from);
  } else if (const auto holder = mLink->roster.Find(mLink->arbiter.GetHolder())) {
    TellWhoIsInControl({from}, *holder);
  }
  ListChanged(now);
}

// --- who goes -------------------------------------------------------------------------------------------------------

void Trel_MasterSession::Disconnected(std::uint32_t address, Time now) {
  mEarly.erase(address);
  mApplicants.erase(address);
  if (mLink) {
    mLink->arbiter.SystemGone(address, false);
    Remove(address, {.kind = Kind::left}, now);
    Settle(now);
  }
}

void Trel_MasterSession::NetworkError(std::uint32_t address, ETCPE_NetworkError error, bool isConnected, Time now) {
  const bool isOfStrangers = error == eNetworkError_Flood;
  if (!isConnected && !isOfStrangers) {
    mEarly.erase(address);
    mApplicants.erase(address);
  }
  if (!mLink) {
    return;
  }
  if (isConnected || isOfStrangers || address == Self() || !mLink->roster.Find(address)) {
    // A stranger, or another connection of a system that is linked.
    TellNetworkError(address, error);
    return;
  }
  mLink->arbiter.SystemGone(address, true);
  Remove(address, {.kind = Kind::lost, .reason = Reason::networkError, .error = error}, now);
  Settle(now);
}

void Trel_MasterSession::Remove(std::uint32_t address, Event event, Time now) {
  const auto system = mLink->roster.Remove(address);
  if (!system) {
    return;
  }
  GoneFrom(address, now);
  mJoining.erase(address);
  std::vector<std::uint32_t> waiting;
  for (auto& [satellite, joining] : mJoining) {
    if (joining.connectsTo.erase(address) != 0) {
      waiting.push_back(satellite);
    }
  }
  for (const std::uint32_t satellite : waiting) {
    CompleteIfConnected(satellite, now);
  }
  event.system = Described(*system);
  Tell(std::move(event));
  ListChanged(now);
}

bool Trel_MasterSession::DisconnectSystem(std::uint32_t address, Time now) {
  if (!mLink || address == Self() || !mLink->roster.Find(address)) {
    return false;
  }
  const System system = *mLink->roster.Find(address);
  // It lets go when the news arrives, or without it by this system's silence.
  mLeftUntil = now + kLeftHolderWait;
  mLink->arbiter.SystemGone(address, true);
  if (mConfig.wantsMesh) {
    std::set<std::uint32_t> others = mLink->roster.GetLinkedAddresses();
    others.erase(address);
    Send(std::move(others), Message::DisconnectFrom{address, system.uniqueID});
  }
  Disconnect(address);
  Remove(address, {.kind = Kind::left, .reason = Reason::unlinkedHere}, now);
  Settle(now);
  return true;
}

// --- control --------------------------------------------------------------------------------------------------------

void Trel_MasterSession::ControlAsked(std::uint32_t from, Token token, Time now) {
  const auto system = mLink ? mLink->roster.Find(from) : std::nullopt;
  // Without an identifier nobody could be told that it is in control.
  const bool canBeNamed = system && (system->uniqueID != 0 || !IsCurrent());
  if (canBeNamed && mLink->roster.GetLinkedAddresses().contains(from)) {
    HandOver(from, token, now);
    Settle(now);
  } else {
    Do(Action::Answer{token, Answer::busy});
  }
}

void Trel_MasterSession::RequestControl(Token token, Time now) {
  if (!mLink) {
    Do(Action::Answer{token, Answer::noLink});
  } else if (BeginOwnRequest(token, now)) {
    HandOver(Self(), token, now);
    Settle(now);
  }
}

void Trel_MasterSession::HandOver(std::uint32_t asker, Token token, Time now) {
  using Arbiter = Trel_ControlArbiter;
  const auto verdict = mLink->arbiter.Request(asker);
  if (verdict != Arbiter::Verdict::askHolder) {
    AnswerAsker(token, verdict == Arbiter::Verdict::granted, now);
    return;
  }
  mTransfer = {.token = token};
  const std::uint32_t holder = mLink->arbiter.GetHolder();
  if (holder != Self()) {
    mTransfer->request = NextRequest();
    Send({holder}, Message::RequestControl{}, mTransfer->request, token);
  } else if (!AskToLetGo(asker, token)) {
    HolderAnswered(Arbiter::Answer::refused, now);
  }
}

void Trel_MasterSession::HostAnswered(Token token, bool agrees, Time now) {
  const std::optional<bool> letsGo = LetGo(token, agrees);
  if (letsGo && mTransfer && mTransfer->token == token && mTransfer->request == 0) {
    HolderAnswered(*letsGo ? Trel_ControlArbiter::Answer::agreed : Trel_ControlArbiter::Answer::refused, now);
    Settle(now);
  }
}

void Trel_MasterSession::HolderAnswered(Trel_ControlArbiter::Answer answer, Time now) {
  const Token token = std::exchange(mTransfer, std::nullopt)->token;
  AnswerAsker(token, mLink->arbiter.HolderAnswered(answer), now);
}

void Trel_MasterSession::AnswerAsker(Token token, bool isGranted, Time now) {
  if (!IsOwnRequest(token)) {
    Do(Action::Answer{token, isGranted ? Answer::granted : Answer::busy});
  } else if (!isGranted) {
    CheckOwnRequest(now);
    if (IsOwnRequest(token)) {
      EndOwnRequest(Answer::busy);
    }
  }
}

void Trel_MasterSession::SendOfLinkEnded(Request request, std::uint32_t address, Outcome outcome, Time now) {
  if (mTransfer && mTransfer->request == request) {
    using Arbiter = Trel_ControlArbiter;
    HolderAnswered(outcome == Outcome::confirmed ? Arbiter::Answer::agreed
                   : outcome == Outcome::refused ? Arbiter::Answer::refused
                                                 : Arbiter::Answer::none,
                   now);
  } else if (mAnnouncement && mAnnouncement->request == request && mAnnouncement->awaited.erase(address) != 0) {
    GoOnAnnouncing(now);
  }
  if (mLink) {
    Settle(now);
  }
}

void Trel_MasterSession::Settle(Time now) {
  if (!mLink->arbiter.MustWait()) {
    mWaitEnds.reset();
  } else if (!mWaitEnds) {
    mWaitEnds = std::max(now + kLostHolderWait, mLeftUntil);
  } else if (*mWaitEnds <= now) {
    mWaitEnds.reset();
    mLink->arbiter.WaitOver();
  }
  if (mLink->arbiter.MustAnnounce()) {
    BeginAnnouncement(now);
  }
}

void Trel_MasterSession::BeginAnnouncement(Time now) {
  if (mListsDue) {
    SendLists(); // so that everybody knows the system that is announced
  }
  mLink->arbiter.BeginAnnouncement();
  const auto holder = mLink->roster.Find(mLink->arbiter.GetHolder());
  if (!holder) { // it was unlinked just when it got control
    mLink->arbiter.SystemGone(mLink->arbiter.GetHolder(), true);
    mLink->arbiter.Announced();
    Settle(now);
    return;
  }
  mAnnouncement = {.holder = *holder, .request = NextRequest()};
  if (holder->address != Self()) {
    AnnounceHere(now);
  }
  mAnnouncement->awaited = mLink->roster.GetLinkedAddresses();
  mAnnouncement->awaited.erase(holder->address);
  TellWhoIsInControl(mAnnouncement->awaited, *holder, mAnnouncement->request);
  GoOnAnnouncing(now);
}

void Trel_MasterSession::GoOnAnnouncing(Time now) {
  if (!mAnnouncement->awaited.empty()) {
    return;
  }
  const System holder = mAnnouncement->holder;
  // The new holder comes last: when it knows, everybody knows.
  if (!std::exchange(mAnnouncement->holderIsTold, true)) {
    if (holder.address == Self()) {
      AnnounceHere(now);
    } else if (mLink->roster.GetLinkedAddresses().contains(holder.address)) {
      mAnnouncement->awaited = {holder.address};
      mAnnouncement->request = NextRequest();
      TellWhoIsInControl({holder.address}, holder, mAnnouncement->request);
      return;
    }
  }
  const Announcement over = *std::exchange(mAnnouncement, std::nullopt);
  mLink->arbiter.Announced();
  if (over.isNews) {
    Tell({.kind = Kind::control, .system = Described(holder)});
  }
  std::set<std::uint32_t> linked = mLink->roster.GetLinkedAddresses();
  std::erase_if(linked, [&over](std::uint32_t address) { return !over.linkedMeanwhile.contains(address); });
  if (mListsDue && !linked.empty()) {
    SendLists();
  }
  TellWhoIsInControl(linked, mLink->roster.Find(holder.address).value_or(holder));
  Settle(now);
}

void Trel_MasterSession::AnnounceHere(Time now) {
  const std::uint32_t holder = mAnnouncement->holder.address;
  mAnnouncement->isNews = mControl.Announce(holder, holder == Self());
  CheckOwnRequest(now);
}

void Trel_MasterSession::TellWhoIsInControl(const std::set<std::uint32_t>& addresses, const System& holder,
                                            Request request) {
  if (IsCurrent()) {
    // The list shows places and addresses, the announcement an identifier: this joins them.
    std::set<std::uint32_t> others = addresses;
    others.erase(holder.address);
    Send(std::move(others), Message::SetOrderNumber{holder.place, holder.address, holder.uniqueID});
  }
  Send(addresses, Message::SystemInControl{holder.address, holder.uniqueID}, request);
}

// --- the list -------------------------------------------------------------------------------------------------------

void Trel_MasterSession::On(std::uint32_t from, const Message::SetSystemName& message, Time now) {
  const auto before = mLink->roster.Find(from);
  if (before && from != Self() && before->name != message.name) {
    mLink->roster.Rename(from, message.name);
    Tell({.kind = Kind::named, .system = Describe(from)});
    ListChanged(now);
  }
}

void Trel_MasterSession::Renamed(Time now) {
  if (mLink) {
    mLink->roster.Rename(Self(), mSurroundings.self.name);
    Send(mLink->roster.GetLinkedAddresses(), Message::SetSystemName{mSurroundings.self.name});
    ListChanged(now);
  }
}

bool Trel_MasterSession::SetOrderNumber(std::uint32_t address, std::int32_t place, Time now) {
  const std::vector<System> changed = mLink ? mLink->roster.Move(address, place) : std::vector<System>();
  for (const System& system : changed) {
    if (system.address != Self()) {
      Send({system.address}, Message::SetOrderNumber{system.place, system.address, system.uniqueID});
    }
    Tell({.kind = Kind::orderNumber, .value = system.place, .system = Described(system)});
  }
  if (!changed.empty()) {
    ListChanged(now);
  }
  return !changed.empty();
}

void Trel_MasterSession::SendLists() {
  mListsDue.reset();
  const std::vector<System> systems = mLink->roster.GetSystems();
  Send(mLink->roster.GetLinkedAddresses(), Message::ListSystems{systems});
  Tell({.kind = Kind::systems, .value = static_cast<std::int64_t>(systems.size())});
}

void Trel_MasterSession::ListChanged(Time now) {
  ++mListChanges;
  mListsDue = mListsDue.value_or(now + kListDelay);
}

std::vector<Trel_SessionSystem> Trel_MasterSession::GetSystems() const {
  return mLink ? mLink->roster.GetSystems() : std::vector<System>();
}

std::set<std::uint32_t> Trel_MasterSession::GetLinkedAddresses() const {
  return mLink ? mLink->roster.GetLinkedAddresses() : std::set<std::uint32_t>();
}

Trel_LinkEvent::System Trel_MasterSession::Describe(std::uint32_t address) const {
  const auto system = mLink ? mLink->roster.Find(address) : std::nullopt;
  return system ? Described(*system) : Event::System{.address = address};
}
