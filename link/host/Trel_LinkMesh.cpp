#include "link/host/Trel_LinkMesh.h"

#include "link/host/Trel_LinkCommands.h"
#include "link/host/Trel_LinkTexts.h"

#include <trel/Sys_Clock.h>
#include <trel/Sys_Umid.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_Messenger.h>

#include <algorithm>

namespace {

constexpr std::size_t kMostPeers = 128;
constexpr std::int64_t kAnswerTime = 3'000'000; // microseconds

} // namespace

void Trel_LinkMesh::ConnectTo(const Trel_System& system) {
  const std::uint32_t address = system.GetIPAddress();
  if (mPeers.size() >= kMostPeers && !mPeers.contains(address)) {
    return;
  }
  mPeers.insert_or_assign(address, Peer{.mSystem = system, .mPause = {mSettings.mFirstPause, mSettings.mLongestPause}});
}

void Trel_LinkMesh::Answered(std::uint32_t address, bool success) {
  const auto peer = mPeers.find(address);
  if (peer != mPeers.end() && peer->second.mState == State::asked) {
    Conclude(peer->second, success, mMaster);
  }
}

void Trel_LinkMesh::Accepted(const Trel_System& system) {
  const auto known = mPeers.find(system.GetIPAddress());
  if (known != mPeers.end() ? !known->second.mIsReported : mPeers.size() >= kMostPeers) {
    return; // while the master waits for word of a connection this side goes on to make it
  }
  mPeers.insert_or_assign(system.GetIPAddress(), Peer{.mSystem = system,
                                                      .mPause = {mSettings.mFirstPause, mSettings.mLongestPause},
                                                      .mState = State::accepted,
                                                      .mIsReported = true});
  mTell(Kind::meshConnected, system, Trel_LinkTexts::Name(system) + " has connected to this system.");
}

void Trel_LinkMesh::Gone(std::uint32_t address, const std::string& text) {
  const auto found = mPeers.find(address);
  if (found == mPeers.end() || Trel_CommManager::IsConnected(address)) {
    return;
  }
  Peer& peer = found->second;
  if (peer.mState == State::due) {
    return;
  }
  mTell(Kind::meshFailed, peer.mSystem, text);
  if (peer.mState == State::accepted) {
    mPeers.erase(found);
    return;
  }
  peer.mState = State::due;
  peer.mTime = Sys_Clock::RawMicroseconds() + peer.mPause.Next(Sys_Umid::Random64());
}

void Trel_LinkMesh::Listed(const std::vector<Trel_System>& systems) {
  std::vector<std::uint32_t> gone;
  for (auto& [address, peer] : mPeers) {
    const bool isListed = std::any_of(systems.begin(), systems.end(), [key = address](const Trel_System& system) {
      return system.GetIPAddress() == key;
    });
    if (peer.mWasListed && !isListed && peer.mState != State::accepted) {
      gone.push_back(address);
    }
    peer.mWasListed = peer.mWasListed || isListed;
  }
  for (const std::uint32_t address : gone) {
    Leave(address, 0);
  }
}

void Trel_LinkMesh::Leave(std::uint32_t address, std::int32_t uniqueID) {
  const auto peer = std::find_if(mPeers.begin(), mPeers.end(), [&](const auto& entry) {
    return entry.first == address || (uniqueID != 0 && entry.second.mSystem.GetUniqueID() == uniqueID);
  });
  if (peer != mPeers.end()) {
    Trel_CommManager::Disconnect(peer->first);
    mPeers.erase(peer);
  }
}

void Trel_LinkMesh::LeaveAll() {
  while (!mPeers.empty()) {
    Leave(mPeers.begin()->first, 0);
  }
}

std::int64_t Trel_LinkMesh::Tick(std::int64_t now, std::uint32_t master) {
  mMaster = master;
  std::int64_t next = Trel_LinkWorker::kNever;
  for (auto& [address, peer] : mPeers) {
    if (peer.mState != State::due && peer.mState != State::asked) {
      continue;
    }
    if (peer.mTime > now) {
      next = std::min(next, peer.mTime);
      continue;
    }
    if (peer.mState == State::due) {
      Connect(peer, now, master);
    } else {
      Conclude(peer, false, master);
    }
    return now; // first what has come meanwhile
  }
  return next;
}

void Trel_LinkMesh::Connect(Peer& peer, std::int64_t now, std::uint32_t master) {
  const std::uint32_t address = peer.mSystem.GetIPAddress();
  const std::uint16_t port = peer.mSystem.GetPort();
  // All systems of a link listen on one port, for which 0 stands.
  const bool isReachable = port == 0 || port == Trel_CommManager::GetCommunicationPort();
  if (!isReachable || !Trel_CommManager::Connect(address)) {
    Conclude(peer, false, master);
  } else if (Trel_CommManager::GetSupportsMarlo11()) {
    peer.mState = State::asked;
    peer.mTime = now + kAnswerTime;
    Trel_LinkCommands::DoConnectTo(address, peer.mSystem.GetUniqueID());
  } else {
    Conclude(peer, true, master);
  }
}

void Trel_LinkMesh::Conclude(Peer& peer, bool success, std::uint32_t master) {
  const std::uint32_t address = peer.mSystem.GetIPAddress();
  const std::string name = Trel_LinkTexts::Name(peer.mSystem);
  const bool isFirst = !peer.mIsReported;
  peer.mIsReported = true;
  if (success) {
    peer.mState = State::connected;
    peer.mPause.Reset();
    mTell(Kind::meshConnected, peer.mSystem, "Connected to " + name + '.');
  } else {
    Trel_CommManager::Disconnect(address);
    peer.mState = State::due;
    peer.mTime = Sys_Clock::RawMicroseconds() + peer.mPause.Next(Sys_Umid::Random64());
    mTell(Kind::meshFailed, peer.mSystem,
          "Cannot connect to " + name + ". Check the network between the two; this is tried again.");
  }
  if (isFirst && Trel_CommManager::GetSupportsMarlo11()) {
    const std::uint16_t port = peer.mSystem.GetPort();
    Trel_Messenger::ConnectToComplete(address, port, success, master);
  } else if (isFirst && !success) {
    Trel_Messenger::ConnectionFailed(address, master);
  }
}

bool Trel_LinkMesh::IsSettled() const {
  return std::all_of(mPeers.begin(), mPeers.end(), [](const auto& entry) { return entry.second.mIsReported; });
}

std::set<std::uint32_t> Trel_LinkMesh::GetConnectedAddresses() const {
  std::set<std::uint32_t> addresses;
  for (const auto& [address, peer] : mPeers) {
    if (peer.mState == State::connected || peer.mState == State::accepted) {
      addresses.insert(address);
    }
  }
  return addresses;
}
