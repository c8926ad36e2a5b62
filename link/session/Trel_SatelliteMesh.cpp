#include "link/session/Trel_SatelliteMesh.h"

#include <algorithm>
#include <limits>

namespace {

constexpr std::size_t kMostPeers = 128;
constexpr Trel_SessionTime kAnswerTime = 3'000'000; // microseconds
constexpr Trel_SessionTime kNever = std::numeric_limits<Trel_SessionTime>::max();

} // namespace

Trel_SatelliteMesh::Peer Trel_SatelliteMesh::NewPeer(const System& system) const {
  return {.system = system, .pause = {mSettings.firstPause, mSettings.longestPause}};
}

void Trel_SatelliteMesh::ConnectTo(const System& system, bool isListed) {
  if (mPeers.size() < kMostPeers || mPeers.contains(system.address)) {
    Peer peer = NewPeer(system);
    peer.opens = true;
    peer.wasListed = isListed;
    mPeers.insert_or_assign(system.address, peer);
  }
}

void Trel_SatelliteMesh::ConnectEnded(std::uint32_t address, bool isConnected, Time now) {
  mIsConnecting = false;
  const auto found = mPeers.find(address);
  if (found == mPeers.end()) { // it was left meanwhile
    if (isConnected) {
      mOwner.Disconnect(address);
    }
    return;
  }
  Peer& peer = found->second;
  if (peer.state != State::connecting) {
    return;
  }
  if (isConnected && mSettings.isCurrentNumbering) {
    peer.state = State::asked;
    peer.time = now + kAnswerTime;
    mOwner.AskPeer(peer.system);
  } else {
    Conclude(peer, isConnected, now);
  }
}

void Trel_SatelliteMesh::Answered(std::uint32_t address, bool success, Time now) {
  const auto peer = mPeers.find(address);
  if (peer != mPeers.end() && peer->second.state == State::asked) {
    Conclude(peer->second, success, now);
    if (!success) { // another system is there now; once the master has admitted it, it is the one to connect
      mPeers.erase(peer);
    }
  }
}

void Trel_SatelliteMesh::Accepted(const System& system) {
  const auto known = mPeers.find(system.address);
  if (known != mPeers.end() ? !known->second.isReported : mPeers.size() >= kMostPeers) {
    return; // while the master waits for word of a connection this side goes on to make it
  }
  Peer peer = NewPeer(system);
  peer.state = State::accepted;
  peer.isReported = true;
  if (known != mPeers.end()) {
    peer.opens = known->second.opens;
    peer.wasListed = known->second.wasListed;
    peer.listens = known->second.listens;
  }
  ++peer.listens;
  mPeers.insert_or_assign(system.address, peer);
  mOwner.Listen(system.address); // an end of the connection before, still to be carried out, may hit this one
  mOwner.TellMesh(system, Kind::meshConnected, Reason::none, eNetworkError_None);
}

void Trel_SatelliteMesh::Heard(std::uint32_t address, bool isConnected, Time now) {
  const auto peer = mPeers.find(address);
  if (peer != mPeers.end() && peer->second.listens > 0 && --peer->second.listens == 0 && !isConnected) {
    Gone(address, Reason::none, eNetworkError_None, now);
  }
}

void Trel_SatelliteMesh::Gone(std::uint32_t address, Reason reason, ETCPE_NetworkError error, Time now) {
  const auto found = mPeers.find(address);
  if (found == mPeers.end()) {
    return;
  }
  Peer& peer = found->second;
  if (peer.state == State::due || peer.state == State::connecting) {
    return;
  }
  mOwner.TellMesh(peer.system, Kind::meshFailed, reason, error);
  if (!peer.opens) {
    mPeers.erase(found);
    return;
  }
  peer.state = State::due;
  peer.time = now + peer.pause.Next(mOwner.Random());
}

void Trel_SatelliteMesh::Listed(const std::vector<System>& systems) {
  std::vector<std::uint32_t> gone;
  for (auto& [address, peer] : mPeers) {
    const bool isListed = std::any_of(systems.begin(), systems.end(),
                                      [key = address](const System& system) { return system.address == key; });
    if (peer.wasListed && !isListed && peer.opens) {
      gone.push_back(address);
    }
    peer.wasListed = peer.wasListed || isListed;
  }
  for (const std::uint32_t address : gone) {
    Leave(address, 0);
  }
}

void Trel_SatelliteMesh::Leave(std::uint32_t address, std::int32_t uniqueID) {
  const auto peer = std::find_if(mPeers.begin(), mPeers.end(), [&](const auto& entry) {
    return entry.first == address || (uniqueID != 0 && entry.second.system.uniqueID == uniqueID);
  });
  if (peer != mPeers.end()) {
    mOwner.Disconnect(peer->first);
    mPeers.erase(peer);
  }
}

void Trel_SatelliteMesh::LeaveAll() {
  while (!mPeers.empty()) {
    Leave(mPeers.begin()->first, 0);
  }
}

void Trel_SatelliteMesh::Tick(Time now) {
  for (auto& [address, peer] : mPeers) {
    if (peer.state == State::due && peer.time <= now && !mIsConnecting) {
      Connect(peer, now);
    } else if (peer.state == State::asked && peer.time <= now) {
      Conclude(peer, false, now);
    }
  }
}

Trel_SatelliteMesh::Time Trel_SatelliteMesh::NextDeadline() const {
  Time next = kNever;
  for (const auto& [address, peer] : mPeers) {
    if (peer.state == State::asked || (peer.state == State::due && !mIsConnecting)) {
      next = std::min(next, peer.time);
    }
  }
  return next;
}

void Trel_SatelliteMesh::Connect(Peer& peer, Time now) {
  // All systems of a link listen on one port, for which 0 stands.
  if (peer.system.port != 0 && peer.system.port != mPort) {
    Conclude(peer, false, now);
    return;
  }
  peer.state = State::connecting;
  mIsConnecting = true;
  mOwner.Connect(peer.system.address);
}

void Trel_SatelliteMesh::Conclude(Peer& peer, bool success, Time now) {
  const bool isFirst = !peer.isReported;
  peer.isReported = true;
  if (success) {
    peer.state = State::connected;
    peer.pause.Reset();
    mOwner.TellMesh(peer.system, Kind::meshConnected, Reason::none, eNetworkError_None);
  } else {
    mOwner.Disconnect(peer.system.address);
    peer.state = State::due;
    peer.time = now + peer.pause.Next(mOwner.Random());
    mOwner.TellMesh(peer.system, Kind::meshFailed, Reason::cannotConnect, eNetworkError_None);
  }
  if (isFirst) {
    mOwner.Report(peer.system, success);
  }
}

bool Trel_SatelliteMesh::IsSettled() const {
  return std::all_of(mPeers.begin(), mPeers.end(), [](const auto& entry) { return entry.second.isReported; });
}

std::set<std::uint32_t> Trel_SatelliteMesh::GetConnectedAddresses() const {
  std::set<std::uint32_t> addresses;
  for (const auto& [address, peer] : mPeers) {
    if (peer.state == State::connected || peer.state == State::accepted) {
      addresses.insert(address);
    }
  }
  return addresses;
}
