#include "link/host/Trel_LinkMaster.h"

#include "link/host/Trel_LinkCommands.h"
#include "link/host/Trel_LinkTexts.h"

#include <trel/Sys_Clock.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_Messenger.h>

#include <algorithm>
#include <type_traits>
#include <utility>

namespace {

using Texts = Trel_LinkTexts;

// Microseconds.
constexpr std::int64_t kListDelay = 20'000;               // gathers the changes of systems that come together
constexpr std::int64_t kLongestMeshSequence = 15'000'000; // two attempts to connect to a dead system
// A satellite gives up sooner: what is still there then does not know the sequence.
constexpr std::int64_t kLongestCompletion = 20'000'000;
// The two ends of a dead connection notice within the period of the heartbeat of each other.
constexpr std::int64_t kLostHolderWait = 1'000'000;
// ... but where this system has moved away, the other end notices by its silence alone.
constexpr std::int64_t kLeftHolderWait = 3'000'000;
// By then a dead system has been silent for too long, or a living one has said something.
constexpr std::int64_t kLongestDoubt = 3'500'000;
constexpr std::int64_t kRivalCheck = 100'000;
constexpr std::int64_t kAddressCheck = 1'000'000; // as often as the engine looks

} // namespace

template <class Function>
auto Trel_LinkMaster::WithLink(Function function) {
  using Result = std::invoke_result_t<Function, Link&>;
  const std::lock_guard lock(mMutex);
  if constexpr (std::is_void_v<Result>) {
    if (mLink) {
      function(*mLink);
    }
  } else {
    return mLink ? function(*mLink) : Result{};
  }
}

void Trel_LinkMaster::Begin() {
  mIsStopped = false;
  const Trel_System local = Trel_LinkCommands::LocalSystem();
  mAddress = local.GetIPAddress();
  {
    const std::lock_guard lock(mMutex);
    mLink.emplace(Link{Trel_SystemRoster(local), Trel_ControlArbiter(mAddress)});
    // Alone, the master is in control from the start.
    mLink->mArbiter.BeginAnnouncement();
    mView.WithControl([this](Trel_ControlState& control) { control.Announce(mAddress, true); });
    mLink->mArbiter.Announced();
  }
  Publish();
  mWorker.Post(
      [this, local] { Tell(Kind::control, mAddress, Texts::Name(local) + " is in control.", 0, local.GetUniqueID()); });
}

void Trel_LinkMaster::End() {
  mIsStopped = true; // whoever connects from now on would wait for nothing
  Trel_CommManager::SetAllowSatellitesToConnectToMasterSystem(false);
  {
    const std::lock_guard lock(mMutex);
    mLink.reset();
  }
  mView.WithControl([](Trel_ControlState& control) { control.LoseLink(); });
  for (const std::uint32_t address : Trel_CommManager::GetConnectedAddresses()) {
    Trel_CommManager::Disconnect(address); // also who has not been admitted yet
  }
  mApplicants.clear();
  mJoining.clear();
  mListsDue.reset();
  mWaitEnds.reset();
  mView.SetSystems({}, {}, false);
}

std::int64_t Trel_LinkMaster::Tick(std::int64_t now) {
  FollowAddress();
  for (const auto& [address, applicant] : std::exchange(mApplicants, {})) {
    Decide(applicant);
  }
  std::int64_t next = now + (mApplicants.empty() ? kAddressCheck : kRivalCheck);
  const auto isDue = [&](std::int64_t due) {
    next = due > now ? std::min(next, due) : next;
    return due <= now;
  };

  if (WithLink([](Link& link) { return link.mArbiter.MustWait(); })) {
    mWaitEnds = mWaitEnds.value_or(now + kLostHolderWait);
    if (isDue(*mWaitEnds)) {
      WithLink([](Link& link) { link.mArbiter.WaitOver(); });
    }
  }
  if (WithLink([](Link& link) { return link.mArbiter.MustAnnounce(); })) {
    mWaitEnds.reset();
    AnnounceControl();
    return now; // somebody may have gone meanwhile
  }
  for (auto& [address, joining] : mJoining) {
    if (isDue(joining.mDeadline)) {
      if (joining.mIsTold) {
        GiveUp(address);
      } else {
        joining.mConnectsTo.clear();
        CompleteIfConnected(address);
      }
      return now;
    }
  }
  if (mListsDue && isDue(*mListsDue)) {
    SendLists();
  }
  return next;
}

void Trel_LinkMaster::FollowAddress() {
  const std::uint32_t address = Trel_CommManager::GetAdaptorIPAddress();
  if (address == 0 || address == mAddress) {
    return;
  }
  for (const Trel_System& system : WithLink([](Link& link) { return link.mRoster.GetSystems(); })) {
    const std::uint32_t gone = system.GetIPAddress();
    if (gone != mAddress) {
      WithLink([gone](Link& link) { link.mArbiter.SystemGone(gone, true); });
      Remove(gone, Kind::lost, Texts::Name(system) + " is lost, because the address of this system has changed.");
    }
  }
  mAddress = address;
  const bool hasControl = WithLink([this, address](Link& link) {
    link.mRoster.SetMasterAddress(address);
    link.mArbiter.SetMaster(address);
    if (link.mArbiter.MustWait()) {
      mWaitEnds = Sys_Clock::RawMicroseconds() + kLeftHolderWait;
    }
    return link.mArbiter.GetHolder() == address;
  });
  const std::uint32_t holder = hasControl ? address : 0;
  mView.WithControl([holder, hasControl](Trel_ControlState& control) { control.Announce(holder, hasControl); });
  Publish();
  Tell(Kind::control, holder,
       "The address of this system is now " + Texts::Name(address) + (hasControl ? ", and it is in control." : "."), 0,
       hasControl ? Trel_CommManager::GetUniqueID() : 0);
}

// --- who comes ------------------------------------------------------------------------------------------------------

void Trel_LinkMaster::OnConnect(const Trel_Cmd_Connect& command) {
  if (mIsStopped) {
    Trel_CommManager::Disconnect(command.GetIPAddressFrom());
    return;
  }
  Trel_System newcomer;
  newcomer.SetIPAddress(command.GetIPAddressFrom());
  newcomer.SetPort(static_cast<std::uint16_t>(Trel_CommManager::GetCommunicationPort())); // the same on all systems
  newcomer.SetSystemName(command.GetSatelliteName());
  newcomer.SetHostName(command.GetHostname());
  newcomer.SetUniqueID(command.GetUniqueIDFrom());
  newcomer.SetSystemType(eTCPE_SystemType_Satellite);
  newcomer.SetMajorVersion(command.GetProtocolMajorVersion());
  newcomer.SetMinorVersion(command.GetProtocolMinorVersion());
  // Whatever it was before, it comes without control.
  WithLink([&](Link& link) { link.mArbiter.SystemGone(newcomer.GetIPAddress(), false); });
  mWorker.PostChange(newcomer.GetIPAddress(), [this, newcomer] { Admit(newcomer); });
}

void Trel_LinkMaster::Admit(const Trel_System& newcomer) {
  const std::uint32_t address = newcomer.GetIPAddress();
  FollowAddress(); // the engine admits at a new address before the next look at it
  Remove(address, Kind::lost, NameOf(address) + " has connected anew.");
  mApplicants.erase(address);
  Decide({newcomer, Sys_Clock::RawMicroseconds()});
}

void Trel_LinkMaster::Decide(const Applicant& applicant) {
  const Trel_System& newcomer = applicant.mSystem;
  const std::uint32_t address = newcomer.GetIPAddress();
  if (!Trel_CommManager::IsConnected(address)) {
    return; // it has gone, or the session was stopped meanwhile
  }
  const bool isAllowed = Trel_CommManager::AllowSatellitesToConnectToMasterSystem();
  const std::int32_t most = Trel_CommManager::GetMaxNumberSatellites();
  const auto admission =
      WithLink([&](Link& link) { return std::optional(link.mRoster.Admit(newcomer, isAllowed, most)); });
  if (!admission) {
    return;
  }
  using Verdict = Trel_SystemRoster::Verdict;
  if (admission->mVerdict == Verdict::identifierUsed && MayBeDead(admission->mSystem, applicant.mSince)) {
    mApplicants[address] = applicant;
    return;
  }
  if (admission->mVerdict != Verdict::admitted) {
    Refuse(newcomer, *admission);
    return;
  }
  Tell(Kind::connected, address, Texts::Name(newcomer) + " has connected.", 0, newcomer.GetUniqueID());
  BeginSequence(admission->mSystem);
}

bool Trel_LinkMaster::MayBeDead(const Trel_System& rival, std::int64_t since) const {
  const std::int64_t doubtFor = Sys_Clock::RawMicroseconds() - since;
  if (rival.GetIPAddress() == mAddress || doubtFor >= kLongestDoubt) {
    return false;
  }
  const std::vector<TCPE_PeerSnapshot> peers = Trel_CommManager::GetSnapshot().peers;
  return std::none_of(peers.begin(), peers.end(), [&](const TCPE_PeerSnapshot& peer) {
    return peer.address == rival.GetIPAddress() && peer.isConnected && peer.silentFor < doubtFor;
  });
}

void Trel_LinkMaster::Refuse(const Trel_System& newcomer, const Trel_SystemRoster::Admission& admission) {
  std::string reason;
  switch (admission.mVerdict) {
  case Trel_SystemRoster::Verdict::admitted:
    return;
  case Trel_SystemRoster::Verdict::notAllowed:
    reason = "no satellite may connect now. Allow satellites to connect.";
    break;
  case Trel_SystemRoster::Verdict::full:
    reason = "as many satellites as allowed are linked, " + std::to_string(Trel_CommManager::GetMaxNumberSatellites()) +
             ". Allow more (MaxNumberSatellites; trel host: --max-satellites), or end the host of another satellite.";
    break;
  case Trel_SystemRoster::Verdict::identifierUsed:
    reason = "it has the identifier " + std::to_string(newcomer.GetUniqueID()) + ", which is already used by " +
             Texts::Name(admission.mSystem) + ". Give one of them another identifier (trel host: --identifier).";
    // By a list without it the newcomer learns who the rival is.
    Trel_LinkCommands::ListSystems(newcomer.GetIPAddress(), {admission.mSystem});
    break;
  }
  Trel_CommManager::Disconnect(newcomer.GetIPAddress());
  Tell(Kind::refused, newcomer.GetIPAddress(), Texts::Name(newcomer) + " was refused: " + reason, 0,
       newcomer.GetUniqueID());
}

void Trel_LinkMaster::BeginSequence(const Trel_System& satellite) {
  const std::uint32_t address = satellite.GetIPAddress();
  const std::vector<Trel_System> systems = WithLink([](Link& link) { return link.mRoster.GetSystems(); });
  Joining& joining = mJoining[address];
  joining.mDeadline = Sys_Clock::RawMicroseconds() + kLongestMeshSequence;

  Trel_Messenger::SetMasterSystem(mAddress, address);
  Trel_LinkCommands::SetOrderNumber(address, satellite);
  Trel_LinkCommands::ListSystems(address, systems);
  if (mSettings.mWantsMesh) {
    // Whoever was admitted later connects, so each pair connects once.
    for (const Trel_System& other : systems) {
      if (other.GetIPAddress() != address && other.GetIPAddress() != mAddress) {
        joining.mConnectsTo.insert(other.GetIPAddress());
        Trel_LinkCommands::ConnectTo(address, other);
      }
    }
  }
  Publish();
  Tell(Kind::orderNumber, address,
       Texts::Name(satellite) + " has place " + std::to_string(satellite.GetOrderNumber()) + '.',
       satellite.GetOrderNumber(), satellite.GetUniqueID());
  CompleteIfConnected(address);
}

void Trel_LinkMaster::OnConnectToComplete(const Trel_Cmd_ConnectToComplete& command) {
  mWorker.Post(command.GetIPAddressFrom(),
               [this, satellite = command.GetIPAddressFrom(), to = command.GetConnectionIDIP(),
                success = command.GetSuccess()] { Connected(satellite, to, success); });
}

void Trel_LinkMaster::OnConnectionFailed(const Trel_Cmd_ConnectionFailed& command) {
  mWorker.Post(command.GetIPAddressFrom(),
               [this, satellite = command.GetIPAddressFrom(), to = command.GetFailedConnectionIPAddress()] {
                 Connected(satellite, to, false);
               });
}

void Trel_LinkMaster::Connected(std::uint32_t satellite, std::uint32_t to, bool success) {
  const auto joining = mJoining.find(satellite);
  if (joining == mJoining.end() || joining->second.mConnectsTo.erase(to) == 0) {
    return;
  }
  if (success) {
    Tell(Kind::meshConnected, satellite, NameOf(satellite) + " is connected to " + NameOf(to) + '.');
  } else {
    Tell(Kind::meshFailed, satellite,
         NameOf(satellite) + " cannot connect to " + NameOf(to) + ". Check the network between the two.");
  }
  CompleteIfConnected(satellite);
}

void Trel_LinkMaster::CompleteIfConnected(std::uint32_t satellite) {
  const auto joining = mJoining.find(satellite);
  if (joining == mJoining.end() || joining->second.mIsTold || !joining->second.mConnectsTo.empty()) {
    return;
  }
  joining->second.mIsTold = true;
  joining->second.mDeadline = Sys_Clock::RawMicroseconds() + kLongestCompletion;
  if (Trel_CommManager::GetSupportsMarlo11()) {
    Trel_LinkCommands::AllConnectionsComplete(satellite);
  }
}

void Trel_LinkMaster::OnConnectComplete(const Trel_Cmd_ConnectComplete& command) {
  const std::uint32_t from = command.GetIPAddressFrom();
  if (WithLink([from](Link& link) { return link.mRoster.SetLinked(from); })) {
    Publish();
    mWorker.Post(from, [this, from] { Linked(from); });
  }
}

void Trel_LinkMaster::Linked(std::uint32_t satellite) {
  mJoining.erase(satellite); // in the legacy numbering it does not wait for the outcome of each connection
  const auto system = Find(satellite);
  if (!system) {
    return;
  }
  Tell(Kind::linked, satellite, Texts::Name(*system) + " is linked.", 0, system->GetUniqueID());
  if (mListsDue) {
    Trel_LinkCommands::ListSystems(satellite, WithLink([](Link& link) { return link.mRoster.GetSystems(); }));
  }
  if (const auto holder = Find(WithLink([](Link& link) { return link.mArbiter.GetHolder(); }))) {
    TellWhoIsInControl(satellite, *holder);
  }
  ListChanged();
}

void Trel_LinkMaster::GiveUp(std::uint32_t satellite) {
  Trel_CommManager::Disconnect(satellite);
  Remove(satellite, Kind::left,
         NameOf(satellite) + " did not complete the link and was disconnected. Check what runs there.");
}

// --- who goes -------------------------------------------------------------------------------------------------------

void Trel_LinkMaster::OnDisconnect(std::uint32_t from) {
  WithLink([from](Link& link) { link.mArbiter.SystemGone(from, false); });
  mWorker.PostChange(from, [this, from] { Remove(from, Kind::left, NameOf(from) + " has left the link."); });
}

void Trel_LinkMaster::OnNetworkError(ETCPE_NetworkError error, std::uint32_t address) {
  const bool isMember = Find(address).has_value();
  if (!isMember || Trel_CommManager::IsConnected(address)) {
    // A stranger, or another connection of a system that is linked.
    mWorker.Post(address, [this, error, address] {
      Tell(Kind::networkError, address, Texts::NetworkError(error, NameOf(address)), error);
    });
    return;
  }
  WithLink([address](Link& link) { link.mArbiter.SystemGone(address, true); });
  mWorker.PostChange(
      address, [this, error, address] { Remove(address, Kind::lost, Texts::NetworkError(error, NameOf(address))); });
}

void Trel_LinkMaster::Remove(std::uint32_t address, Kind kind, const std::string& text) {
  const auto system = WithLink([address](Link& link) { return link.mRoster.Remove(address); });
  if (!system) {
    return;
  }
  mJoining.erase(address);
  std::vector<std::uint32_t> waiting;
  for (auto& [satellite, joining] : mJoining) {
    if (joining.mConnectsTo.erase(address) != 0) {
      waiting.push_back(satellite);
    }
  }
  for (const std::uint32_t satellite : waiting) {
    CompleteIfConnected(satellite);
  }
  Publish();
  Tell(kind, address, text, 0, system->GetUniqueID());
  ListChanged();
}

bool Trel_LinkMaster::DisconnectSystem(std::uint32_t address) {
  const auto system = Find(address);
  if (!system || address == Trel_CommManager::GetAdaptorIPAddress()) {
    return false;
  }
  mWorker.Post([this, system = *system] {
    const std::uint32_t gone = system.GetIPAddress();
    // It lets go when the news arrives, so it is waited for like one that is lost.
    WithLink([gone](Link& link) { link.mArbiter.SystemGone(gone, true); });
    if (mSettings.mWantsMesh) {
      for (const std::uint32_t other : WithLink([](Link& link) { return link.mRoster.GetLinkedAddresses(); })) {
        if (other != gone) {
          Trel_LinkCommands::DisconnectFrom(other, system);
        }
      }
    }
    Trel_CommManager::Disconnect(gone);
    Remove(gone, Kind::left, Texts::Name(system) + " was unlinked.");
  });
  return true;
}

// --- control --------------------------------------------------------------------------------------------------------

bool Trel_LinkMaster::OnRequestControl(std::uint32_t asker) {
  const bool mayAsk = WithLink([asker](Link& link) {
    const auto system = link.mRoster.Find(asker);
    // Without an identifier nobody could be told that it is in control.
    const bool canBeNamed = system && (system->GetUniqueID() != 0 || !Trel_CommManager::GetSupportsMarlo11());
    return canBeNamed && link.mRoster.GetLinkedAddresses().contains(asker);
  });
  return mayAsk && HandOver(asker);
}

Trel_LinkSession::ControlAnswer Trel_LinkMaster::RequestControl() {
  return AskForControl([this] { return HandOver(Trel_CommManager::GetAdaptorIPAddress()); });
}

bool Trel_LinkMaster::HandOver(std::uint32_t asker) {
  using Arbiter = Trel_ControlArbiter;
  std::uint32_t holder = 0;
  const std::uint32_t own = Trel_CommManager::GetAdaptorIPAddress();
  const auto verdict = WithLink([&](Link& link) {
    if (own != 0) {
      link.mArbiter.SetMaster(own); // the worker may not have followed yet
    }
    const auto result = link.mArbiter.Request(asker);
    holder = link.mArbiter.GetHolder();
    return result;
  });
  if (verdict == Arbiter::Verdict::busy) {
    return false;
  }
  bool isGranted = verdict == Arbiter::Verdict::granted;
  if (verdict == Arbiter::Verdict::askHolder) {
    auto answer = Arbiter::Answer::none;
    if (holder == own) {
      answer = LetGo(asker) ? Arbiter::Answer::agreed : Arbiter::Answer::refused;
    } else {
      switch (Trel_LinkCommands::RequestControl(holder)) {
      case Trel_LinkCommands::Reply::yes:
        answer = Arbiter::Answer::agreed;
        break;
      case Trel_LinkCommands::Reply::no:
        answer = Arbiter::Answer::refused;
        break;
      case Trel_LinkCommands::Reply::none:
        break;
      }
    }
    isGranted = WithLink([answer](Link& link) { return link.mArbiter.HolderAnswered(answer); });
  }
  mWorker.Post([] {}); // there is somebody to announce
  return isGranted;
}

void Trel_LinkMaster::AnnounceControl() {
  if (mListsDue) {
    SendLists(); // so that everybody knows the system that is announced
  }
  std::set<std::uint32_t> addresses;
  const auto holder = WithLink([&](Link& link) {
    link.mArbiter.BeginAnnouncement();
    addresses = link.mRoster.GetLinkedAddresses();
    return link.mRoster.Find(link.mArbiter.GetHolder());
  });
  bool isNews = false;
  if (holder) {
    const auto announceHere = [&] {
      isNews = mView.WithControl([&](Trel_ControlState& control) {
        return control.Announce(holder->GetIPAddress(), holder->GetIPAddress() == mAddress);
      });
    };
    // In ascending order, but the new holder last: when it knows, everybody knows.
    const bool isHere = holder->GetIPAddress() == mAddress;
    if (!isHere) {
      announceHere();
    }
    for (const std::uint32_t address : addresses) {
      if (address != holder->GetIPAddress()) {
        TellWhoIsInControl(address, *holder);
      }
    }
    if (isHere) {
      announceHere();
    } else {
      TellWhoIsInControl(holder->GetIPAddress(), *holder);
    }
  }
  WithLink([&holder](Link& link) {
    if (!holder) { // it was unlinked just when it got control
      link.mArbiter.SystemGone(link.mArbiter.GetHolder(), true);
    }
    link.mArbiter.Announced();
  });
  if (isNews) { // the host may take its time: meanwhile control can be asked for
    Tell(Kind::control, holder->GetIPAddress(), Texts::Name(*holder) + " is in control.", 0, holder->GetUniqueID());
  }
}

void Trel_LinkMaster::TellWhoIsInControl(std::uint32_t address, const Trel_System& holder) {
  if (address != holder.GetIPAddress() && Trel_CommManager::GetSupportsMarlo11()) {
    // The list shows places and addresses, the announcement an identifier: this joins them.
    Trel_LinkCommands::SetOrderNumber(address, holder);
  }
  Trel_LinkCommands::SystemInControl(address, holder);
}

// --- the list -------------------------------------------------------------------------------------------------------

void Trel_LinkMaster::OnSetSystemName(const Trel_Cmd_SetSystemName& command) {
  const std::uint32_t from = command.GetIPAddressFrom();
  mWorker.Post(from, [this, from, name = std::string(command.GetSystemName())] {
    if (WithLink([&](Link& link) { return link.mRoster.Rename(from, name.c_str()); })) {
      Publish();
      Tell(Kind::named, from, "The system at " + Texts::Name(from) + " is now named " + name + '.');
      ListChanged();
    }
  });
}

void Trel_LinkMaster::Renamed() {
  mWorker.Post([this] {
    const std::string name = Trel_CommManager::GetSystemName();
    WithLink([&](Link& link) { link.mRoster.Rename(mAddress, name.c_str()); });
    Publish();
    for (const std::uint32_t address : WithLink([](Link& link) { return link.mRoster.GetLinkedAddresses(); })) {
      Trel_Messenger::SetSystemName(name.c_str(), address);
    }
    ListChanged();
  });
}

bool Trel_LinkMaster::SetOrderNumber(std::uint32_t address, std::int32_t number) {
  const std::vector<Trel_System> changed = WithLink([&](Link& link) { return link.mRoster.Move(address, number); });
  if (changed.empty()) {
    return false;
  }
  Publish();
  mWorker.Post([this, changed] {
    for (const Trel_System& system : changed) {
      if (system.GetIPAddress() != mAddress) {
        Trel_LinkCommands::SetOrderNumber(system.GetIPAddress(), system);
      }
      Tell(Kind::orderNumber, system.GetIPAddress(),
           Texts::Name(system) + " has place " + std::to_string(system.GetOrderNumber()) + '.', system.GetOrderNumber(),
           system.GetUniqueID());
    }
    ListChanged();
  });
  return true;
}

void Trel_LinkMaster::SendLists() {
  mListsDue.reset();
  std::set<std::uint32_t> addresses;
  const auto systems = WithLink([&](Link& link) {
    addresses = link.mRoster.GetLinkedAddresses();
    return link.mRoster.GetSystems();
  });
  for (const std::uint32_t address : addresses) {
    Trel_LinkCommands::ListSystems(address, systems);
  }
  const std::string count = std::to_string(systems.size());
  Tell(Kind::systems, 0, "The link has " + count + (systems.size() == 1 ? " system." : " systems."),
       static_cast<std::int64_t>(systems.size()));
}

void Trel_LinkMaster::Publish() {
  WithLink([this](Link& link) {
    const std::set<std::uint32_t> linked = link.mRoster.GetLinkedAddresses();
    mView.SetSystems(link.mRoster.GetSystems(), linked, !linked.empty());
  });
}

void Trel_LinkMaster::ListChanged() { mListsDue = mListsDue.value_or(Sys_Clock::RawMicroseconds() + kListDelay); }

std::optional<Trel_System> Trel_LinkMaster::Find(std::uint32_t address) {
  return WithLink([address](Link& link) { return link.mRoster.Find(address); });
}

std::string Trel_LinkMaster::NameOf(std::uint32_t address) {
  const auto system = Find(address);
  return system ? Texts::Name(*system) : Texts::Name(address);
}
