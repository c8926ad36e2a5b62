#include "link/host/Trel_LinkSatellite.h"

#include "link/host/Trel_LinkCommands.h"
#include "link/host/Trel_LinkTexts.h"

#include <trel/Sys_Clock.h>
#include <trel/Sys_Umid.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_Messenger.h>

#include <algorithm>
#include <utility>

namespace {

using Texts = Trel_LinkTexts;

// Microseconds.
constexpr std::int64_t kReasonDelay = 100'000; // by which the reason of a refusal may come after the refusal
constexpr std::int64_t kLongestSequence = 20'000'000;
constexpr std::int64_t kQuietTime = 200'000; // legacy: the master sends its ConnectTo in one go

constexpr std::size_t kMostSystems = 129; // of a link

} // namespace

Trel_LinkSatellite::Trel_LinkSatellite(const Settings& settings, Trel_LinkView& view, Trel_LinkWorker& worker)
    : Trel_LinkRole(settings, view, worker), mPause(settings.mFirstPause, settings.mLongestPause),
      mMesh(settings, [this](Kind kind, const Trel_System& system, const std::string& text) {
        Tell(kind, system.GetIPAddress(), text, 0, system.GetUniqueID());
      }) {}

void Trel_LinkSatellite::Begin() {
  mPause.Reset();
  mHasToldNoMaster = false;
  mMaster = mSettings.mMasterAddress;
  mPhase = mMaster != 0 ? Phase::connecting : Phase::searching;
}

void Trel_LinkSatellite::End() {
  Trel_CommManager::Disconnect(mMaster);
  EndLink();
  mPhase = Phase::away;
}

std::int64_t Trel_LinkSatellite::Tick(std::int64_t now) {
  TakeUpWhatWasTold();
  switch (mPhase) {
  case Phase::away:
    return Trel_LinkWorker::kNever;
  case Phase::searching:
    Search();
    return now;
  case Phase::connecting:
    Connect();
    return now;
  case Phase::failed:
    if (now < mDue) {
      return mDue;
    }
    Tell(Kind::connectFailed, mMaster,
         mMaster == Trel_CommManager::GetAdaptorIPAddress()
             ? MasterName() + " is the address of this system itself. Give the address of the master."
             : "No answer from " + MasterName() + ". Check that it is running, its address, and the cable.");
    Wait(mPause.Next(Sys_Umid::Random64()));
    return now;
  case Phase::joining: {
    const std::int64_t due = std::min(mMesh.Tick(now, mMaster), WhenJoined());
    if (WhenJoined() <= now) {
      Complete();
    }
    return due;
  }
  case Phase::linked: {
    const std::int64_t due = mMesh.Tick(now, mMaster);
    Publish();
    return due;
  }
  case Phase::ending:
    if (now < mDue) {
      return mDue;
    }
    MasterGone(Kind::lost, Texts::NetworkError(eNetworkError_ConnectionLost, MasterName()));
    return now;
  case Phase::waiting:
    if (now < mDue) {
      return mDue;
    }
    mPhase = mSettings.mMasterAddress != 0 ? Phase::connecting : Phase::searching;
    return now;
  }
  return Trel_LinkWorker::kNever;
}

// --- finding and connecting -----------------------------------------------------------------------------------------

void Trel_LinkSatellite::Search() {
  if (!mHasToldNoMaster) {
    Tell(Kind::searching, 0, "Searching the network for a master.");
  }
  std::map<Trel_System, bool> masters;
  if (mSettings.mFindMasters) {
    mSettings.mFindMasters(&masters);
  } else {
    Trel_CommManager::GetMasterSystemsList(&masters);
  }
  std::string others;
  const Trel_System* chosen = nullptr;
  for (const auto& [master, isAvailable] : masters) { // by address
    if (isAvailable && chosen == nullptr) {
      chosen = &master;
    } else {
      others += (others.empty() ? "" : ", ") + Texts::Name(master) + (isAvailable ? "" : " (not available)");
    }
  }
  if (chosen == nullptr) {
    if (!std::exchange(mHasToldNoMaster, true)) {
      Tell(Kind::noMaster, 0,
           others.empty() ? "No master answers on the network. Start one, or give its address (trel host: --connect); "
                            "masters that have a "
                            "shared secret answer only those who have it too."
                          : "No master can be connected to: " + others + ". Allow satellites to connect there.");
    }
    Wait(mPause.Next(Sys_Umid::Random64()));
    return;
  }
  mHasToldNoMaster = false;
  mMaster = chosen->GetIPAddress();
  Tell(Kind::masterFound, mMaster,
       "Found the master " + Texts::Name(*chosen) + '.' +
           (others.empty() ? "" : " There are others, and the lowest address was taken: " + others + '.'),
       0, chosen->GetUniqueID());
  mPhase = Phase::connecting;
}

void Trel_LinkSatellite::Connect() {
  {
    const std::lock_guard lock(mMutex);
    mTold = {};
  }
  Tell(Kind::connecting, mMaster, "Connecting to " + MasterName() + '.');
  const bool isConnected = Trel_CommManager::Connect(mMaster);
  const std::int64_t now = Sys_Clock::RawMicroseconds();
  mPhase = isConnected ? Phase::joining : Phase::failed;
  mDue = now + (isConnected ? kLongestSequence : kReasonDelay);
  if (isConnected) {
    Tell(Kind::connected, mMaster, "Connected to " + MasterName() + '.');
  }
}

std::int64_t Trel_LinkSatellite::WhenJoined() {
  const std::lock_guard lock(mMutex);
  if (Trel_CommManager::GetSupportsMarlo11()) {
    return mTold.mAllConnectionsComplete ? 0 : mDue;
  }
  const bool isTold = mTold.mList && mTold.mConnectTo.empty() && mMesh.IsSettled();
  return isTold ? mTold.mLastOfSequence + kQuietTime : mDue;
}

void Trel_LinkSatellite::Complete() {
  const bool isInTime = Sys_Clock::RawMicroseconds() < mDue;
  if (isInTime && Trel_LinkCommands::ConnectComplete(mMaster)) {
    mPhase = Phase::linked;
    mIsLinked = true;
    mPause.Reset();
    Publish();
    Tell(Kind::linked, mMaster, "Linked with " + MasterName() + '.');
    return;
  }
  if (!Trel_CommManager::IsConnected(mMaster)) {
    mPhase = Phase::ending;
    mDue = Sys_Clock::RawMicroseconds() + kReasonDelay;
    return;
  }
  Trel_CommManager::Disconnect(mMaster);
  EndLink();
  Tell(Kind::connectFailed, mMaster,
       MasterName() + " did not link this system in time. Check that it is a master, and not overloaded.");
  Wait(mPause.Next(Sys_Umid::Random64()));
}

void Trel_LinkSatellite::MasterGone(Kind kind, const std::string& text) {
  const Phase before = mPhase;
  if (before == Phase::failed) {
    Tell(Kind::refused, mMaster, text);
    Wait(mPause.Next(Sys_Umid::Random64()));
    return;
  }
  if (before != Phase::joining && before != Phase::ending && before != Phase::linked) {
    return;
  }
  if (before != Phase::linked && kind == Kind::left) {
    TellRefusal();
    return;
  }
  Tell(kind, mMaster, text);
  EndLink();
  Wait(mPause.Next(Sys_Umid::Random64()));
}

void Trel_LinkSatellite::TellRefusal() {
  const std::vector<Trel_System> listed = GetListed();
  const bool isOurs = std::any_of(listed.begin(), listed.end(), [](const Trel_System& system) {
    return system.GetIPAddress() == Trel_CommManager::GetAdaptorIPAddress();
  });
  const bool isClash = !listed.empty() && !isOurs;
  const std::string master = Texts::Name(mMaster);
  Tell(Kind::refused, mMaster,
       isClash ? "Refused by " + master + ": identifier " + std::to_string(Trel_CommManager::GetUniqueID()) +
                     " is already used by " + Texts::Name(listed.front()) +
                     ". Give one of them another identifier (trel host: --identifier)."
       : isOurs ? "The master at " + master + " ended the connection before this system was linked. It may be stopping."
                : "Refused by " + master +
                      ": it has as many satellites as it allows, or allows none now. Allow more there "
                      "(MaxNumberSatellites; trel host: --max-satellites), or end the host "
                      "of another satellite.");
  EndLink();
  Wait(isClash ? mPause.Longest(Sys_Umid::Random64()) : mPause.Next(Sys_Umid::Random64()));
}

void Trel_LinkSatellite::EndLink() {
  LoseControl();
  mMesh.LeaveAll();
  mView.SetSystems({}, {}, false);
}

void Trel_LinkSatellite::Wait(std::int64_t pause) {
  if (!mSettings.mReconnects) {
    mPhase = Phase::away;
    return;
  }
  mPhase = Phase::waiting;
  mDue = Sys_Clock::RawMicroseconds() + pause;
  Tell(Kind::waiting, mMaster, "The next attempt is in " + Texts::Seconds(pause) + '.', pause);
}

// --- what the master tells ------------------------------------------------------------------------------------------

void Trel_LinkSatellite::OnListSystems(const Trel_Cmd_ListSystems& command) {
  if (!IsFromMaster(command)) {
    return;
  }
  {
    const std::lock_guard lock(mMutex);
    mTold.mList = command.GetSystems();
    std::erase_if(mTold.mIdentifiers, [this](const auto& told) {
      return std::none_of(mTold.mList->begin(), mTold.mList->end(),
                          [&told](const Trel_System& system) { return system.GetIPAddress() == told.first; });
    });
    mTold.mIsListNew = true;
    mTold.mLastOfSequence = Sys_Clock::RawMicroseconds();
  }
  mWorker.Post(mMaster, [] {});
}

void Trel_LinkSatellite::OnConnectTo(const Trel_Cmd_ConnectTo& command) {
  const std::uint32_t to = command.GetConnectToIPAddress();
  if (!IsFromMaster(command) || to == 0 || to == mMaster || to == Trel_CommManager::GetAdaptorIPAddress()) {
    return;
  }
  Trel_System system;
  system.SetIPAddress(to);
  system.SetPort(command.GetConnectToPort());
  system.SetUniqueID(command.GetUniqueSystemID());
  system.SetSystemName(command.GetSystemName());
  system.SetHostName(command.GetHostname());
  system.SetSystemType(command.GetSystemType());
  {
    const std::lock_guard lock(mMutex);
    if (mTold.mConnectTo.size() < kMostSystems) {
      mTold.mConnectTo[system.GetIPAddress()] = system;
    }
    mTold.mLastOfSequence = Sys_Clock::RawMicroseconds();
  }
  mWorker.Post(mMaster, [] {});
}

void Trel_LinkSatellite::OnAllConnectionsComplete(const Trel_Cmd_AllConnectionsComplete& command) {
  if (IsFromMaster(command)) {
    {
      const std::lock_guard lock(mMutex);
      mTold.mAllConnectionsComplete = true;
    }
    mWorker.Post(mMaster, [] {});
  }
}

void Trel_LinkSatellite::OnSetMasterSystem(const Trel_Cmd_SetMasterSystem& command) {
  if (IsFromMaster(command)) {
    Trel_CommManager::SetMasterSystemIPAddress(command.GetIPAddress());
  }
}

void Trel_LinkSatellite::OnSetOrderNumber(const Trel_Cmd_SetOrderNumber& command) {
  if (!IsFromMaster(command)) {
    return;
  }
  const std::int32_t place = command.GetOrderNumber();
  const bool isCurrent = Trel_CommManager::GetSupportsMarlo11();
  const std::int32_t uniqueID = command.GetUniqueID();
  const bool isOurs =
      isCurrent ? uniqueID == 0 || uniqueID == Trel_CommManager::GetUniqueID()
                : command.GetIPAddress() == 0 || command.GetIPAddress() == Trel_CommManager::GetAdaptorIPAddress();
  if (isOurs) {
    mWorker.Post(mMaster, [this, place] {
      Tell(Kind::orderNumber, Trel_CommManager::GetAdaptorIPAddress(),
           "This system has place " + std::to_string(place) + '.', place, Trel_CommManager::GetUniqueID());
    });
  } else if (isCurrent) {
    for (const Trel_System& system : GetListed()) {
      if (system.GetOrderNumber() == place) {
        const std::lock_guard lock(mMutex);
        mTold.mIdentifiers[system.GetIPAddress()] = uniqueID;
      }
    }
  }
}

void Trel_LinkSatellite::TakeUpWhatWasTold() {
  std::map<std::uint32_t, Trel_System> connectTo;
  std::vector<Trel_System> list;
  bool isListNew = false;
  if (mPhase == Phase::joining || mPhase == Phase::linked) {
    const std::lock_guard lock(mMutex);
    connectTo.swap(mTold.mConnectTo);
    isListNew = std::exchange(mTold.mIsListNew, false);
    list = isListNew ? *mTold.mList : list;
  }
  for (const auto& [address, system] : connectTo) {
    mMesh.ConnectTo(system);
  }
  if (!isListNew) {
    return;
  }
  mMesh.Listed(list);
  Publish();
  const std::string count = std::to_string(list.size());
  Tell(Kind::systems, 0, "The link has " + count + (list.size() == 1 ? " system." : " systems."),
       static_cast<std::int64_t>(list.size()));
}

void Trel_LinkSatellite::OnSetSystemName(const Trel_Cmd_SetSystemName& command) {
  const std::uint32_t from = command.GetIPAddressFrom();
  {
    const std::lock_guard lock(mMutex);
    if (mTold.mList) {
      for (Trel_System& system : *mTold.mList) {
        if (system.GetIPAddress() == from) {
          system.SetSystemName(command.GetSystemName());
        }
      }
    }
  }
  mWorker.Post(from, [this, from, name = std::string(command.GetSystemName())] {
    Publish();
    Tell(Kind::named, from, "The system at " + Texts::Name(from) + " is now named " + name + '.');
  });
}

// --- who comes and goes ---------------------------------------------------------------------------------------------

void Trel_LinkSatellite::OnConnect(const Trel_Cmd_Connect& command) {
  if (IsFromMaster(command)) {
    return; // by the sequence it is this system that connects to its master
  }
  Trel_System system;
  system.SetIPAddress(command.GetIPAddressFrom());
  system.SetUniqueID(command.GetUniqueIDFrom());
  system.SetSystemName(command.GetSatelliteName());
  system.SetHostName(command.GetHostname());
  mWorker.PostChange(system.GetIPAddress(), [this, system] { mMesh.Accepted(system); });
}

void Trel_LinkSatellite::OnDoConnectTo(const Trel_Cmd_DoConnectTo& command) {
  const std::int32_t to = command.GetUniqueSystemIDTo();
  Trel_LinkCommands::DoConnectToComplete(command.GetIPAddressFrom(), to == 0 || to == Trel_CommManager::GetUniqueID());
}

void Trel_LinkSatellite::OnDoConnectToComplete(const Trel_Cmd_DoConnectToComplete& command) {
  mWorker.Post(command.GetIPAddressFrom(), [this, from = command.GetIPAddressFrom(), success = command.GetSuccess()] {
    mMesh.Answered(from, success);
  });
}

void Trel_LinkSatellite::OnDisconnectFrom(const Trel_Cmd_DisconnectFrom& command) {
  if (IsFromMaster(command)) {
    mWorker.Post(mMaster, [this, address = command.GetDisconnectFromIPAddress(), id = command.GetUniqueSystemID()] {
      mMesh.Leave(address, id);
    });
  }
}

void Trel_LinkSatellite::OnDisconnect(std::uint32_t from) {
  if (from != mMaster) {
    mWorker.PostChange(from, [this, from] { mMesh.Gone(from, NameOf(from) + " has disconnected from this system."); });
    return;
  }
  LoseControl();
  mWorker.PostChange(from, [this] { MasterGone(Kind::left, MasterName() + " has ended the link."); });
}

void Trel_LinkSatellite::OnNetworkError(ETCPE_NetworkError error, std::uint32_t address) {
  if (Trel_CommManager::IsConnected(address)) {
    return; // about another connection than the one that stands
  }
  if (address != mMaster) {
    mWorker.PostChange(address, [this, error, address] {
      const std::string text = Texts::NetworkError(error, NameOf(address));
      if (mMesh.Knows(address)) {
        mMesh.Gone(address, text);
      } else {
        Tell(Kind::networkError, address, text, error);
      }
    });
    return;
  }
  LoseControl();
  mWorker.PostChange(address, [this, error] { MasterGone(Kind::lost, Texts::NetworkError(error, MasterName())); });
}

// --- control --------------------------------------------------------------------------------------------------------

void Trel_LinkSatellite::OnSystemInControl(const Trel_Cmd_SystemInControl& command) {
  if (!IsFromMaster(command)) {
    return;
  }
  const std::uint32_t self = Trel_CommManager::GetAdaptorIPAddress();
  const std::int32_t uniqueID = command.GetUniqueID();
  std::uint32_t holder = command.GetSystemInControl();
  if (Trel_CommManager::GetSupportsMarlo11()) {
    holder = AddressOf(uniqueID);
  }
  const bool isHere = holder == self;
  if (isHere && !mIsLinked) {
    return; // meant for what was here before
  }
  const bool isNews =
      mView.WithControl([holder, isHere](Trel_ControlState& control) { return control.Announce(holder, isHere); });
  if (!isNews) {
    return;
  }
  mWorker.Post(mMaster, [this, holder, uniqueID, isHere] {
    Tell(Kind::control, holder,
         (isHere        ? "This system"
          : holder != 0 ? NameOf(holder)
                        : "Another system") +
             std::string(" is in control."),
         0, uniqueID);
  });
}

bool Trel_LinkSatellite::OnRequestControl(std::uint32_t asker) { return asker == mMaster && LetGo(asker); }

Trel_LinkSession::ControlAnswer Trel_LinkSatellite::RequestControl() {
  if (!mIsLinked) {
    return Trel_LinkSession::ControlAnswer::noLink;
  }
  return AskForControl([this] {
    // No answer may be one that is late: then the announcement comes all the same.
    return Trel_LinkCommands::RequestControl(mMaster) != Trel_LinkCommands::Reply::no;
  });
}

void Trel_LinkSatellite::LoseControl() {
  mIsLinked = false;
  mView.WithControl([](Trel_ControlState& control) { control.LoseLink(); });
}

// --- the host's wishes ----------------------------------------------------------------------------------------------

bool Trel_LinkSatellite::DisconnectSystem(std::uint32_t address) {
  if (address == 0 || address != mMaster) {
    return false;
  }
  LoseControl();
  mWorker.Post([this] {
    const bool wasConnected = Trel_CommManager::Disconnect(mMaster);
    EndLink();
    mPhase = Phase::away;
    if (wasConnected) {
      Tell(Kind::left, mMaster, "Left " + MasterName() + '.');
    }
  });
  return true;
}

void Trel_LinkSatellite::Resume() {
  mWorker.Post([this] {
    if (mPhase == Phase::away) {
      Begin();
    }
  });
}

void Trel_LinkSatellite::Renamed() {
  mWorker.Post([this] {
    std::set<std::uint32_t> addresses = mMesh.GetConnectedAddresses();
    addresses.insert(mMaster);
    for (const std::uint32_t address : addresses) {
      Trel_Messenger::SetSystemName(Trel_CommManager::GetSystemName(), address);
    }
  });
}

// --- who is there ---------------------------------------------------------------------------------------------------

void Trel_LinkSatellite::Publish() {
  if (mPhase != Phase::linked && mPhase != Phase::joining) {
    return;
  }
  std::set<std::uint32_t> linked = mMesh.GetConnectedAddresses();
  if (mPhase == Phase::linked) {
    linked.insert(mMaster);
  }
  mView.SetSystems(GetListed(), linked, mIsLinked);
}

std::vector<Trel_System> Trel_LinkSatellite::GetListed() {
  const std::lock_guard lock(mMutex);
  std::vector<Trel_System> systems = mTold.mList.value_or(std::vector<Trel_System>());
  for (Trel_System& system : systems) {
    if (system.GetIPAddress() == Trel_CommManager::GetAdaptorIPAddress()) {
      system.SetUniqueID(Trel_CommManager::GetUniqueID());
    }
    if (const auto told = mTold.mIdentifiers.find(system.GetIPAddress()); told != mTold.mIdentifiers.end()) {
      system.SetUniqueID(told->second);
    }
  }
  std::stable_sort(systems.begin(), systems.end(),
                   [](const Trel_System& a, const Trel_System& b) { return a.GetOrderNumber() < b.GetOrderNumber(); });
  return systems;
}

std::uint32_t Trel_LinkSatellite::AddressOf(std::int32_t uniqueID) {
  if (uniqueID == 0) {
    return 0;
  }
  for (const Trel_System& system : GetListed()) {
    if (system.GetUniqueID() == uniqueID) {
      return system.GetIPAddress();
    }
  }
  return uniqueID == Trel_CommManager::GetUniqueID() ? Trel_CommManager::GetAdaptorIPAddress() : 0;
}

std::string Trel_LinkSatellite::NameOf(std::uint32_t address) {
  for (const Trel_System& system : GetListed()) {
    if (system.GetIPAddress() == address) {
      return Texts::Name(system);
    }
  }
  return Texts::Name(address);
}
