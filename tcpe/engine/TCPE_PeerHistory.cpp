#include "tcpe/engine/TCPE_PeerHistory.h"

#include <algorithm>

TCPE_PeerHistory::TrafficPointer TCPE_PeerHistory::Opened(std::uint32_t address, ConnectionId connection,
                                                          bool openedByPeer, TCPE_Time now) {
  const std::lock_guard lock(mMutex);
  Peer& peer = mPeers[address];
  peer.connection = connection;
  peer.openedByPeer = openedByPeer;
  peer.changed = now;
  ++peer.connections;
  return peer.traffic;
}

void TCPE_PeerHistory::SetName(std::uint32_t address, const std::string& name) {
  const std::lock_guard lock(mMutex);
  if (const auto position = mPeers.find(address); position != mPeers.end()) {
    position->second.name = name;
  }
}

void TCPE_PeerHistory::Ended(std::uint32_t address, ConnectionId connection, ETCPE_NetworkError error, TCPE_Time now) {
  const std::lock_guard lock(mMutex);
  const auto position = mPeers.find(address);
  if (position == mPeers.end()) {
    return;
  }
  Peer& peer = position->second;
  if (error != eNetworkError_None) {
    ++peer.losses;
    peer.lastLoss = error;
  }
  if (peer.connection == connection) { // else the next one is there already
    peer.connection = 0;
    peer.isLost = error != eNetworkError_None;
    peer.changed = now;
    ForgetTheOldest();
  }
}

std::vector<TCPE_PeerSnapshot> TCPE_PeerHistory::Peers(TCPE_Time now) const {
  std::vector<TCPE_PeerSnapshot> snapshots;
  std::vector<TrafficPointer> traffic;
  {
    const std::lock_guard lock(mMutex);
    snapshots.reserve(mPeers.size());
    traffic.reserve(mPeers.size());
    for (const auto& [address, peer] : mPeers) {
      TCPE_PeerSnapshot& snapshot = snapshots.emplace_back();
      snapshot.address = address;
      snapshot.name = peer.name;
      snapshot.isConnected = peer.connection != 0;
      snapshot.isOpenedByPeer = peer.openedByPeer;
      // It may have come or gone since the caller looked at the clock.
      (snapshot.isConnected ? snapshot.connectedFor : snapshot.goneFor) = std::max(now - peer.changed, TCPE_Time{0});
      snapshot.connections = peer.connections;
      snapshot.losses = peer.losses;
      snapshot.lastLoss = peer.lastLoss;
      snapshot.isLost = !snapshot.isConnected && peer.isLost;
      traffic.push_back(peer.traffic);
    }
  }
  for (std::size_t index = 0; index < snapshots.size(); ++index) {
    snapshots[index].sent = traffic[index]->sent.Count();
    snapshots[index].received = traffic[index]->received.Count();
    snapshots[index].sentCommands = traffic[index]->sent.CountCommands();
    snapshots[index].receivedCommands = traffic[index]->received.CountCommands();
    snapshots[index].roundTrips = traffic[index]->roundTrips.Times();
    std::copy(traffic[index]->errors.begin(), traffic[index]->errors.end(), snapshots[index].errors.begin());
  }
  return snapshots;
}

void TCPE_PeerHistory::ForgetTheOldest() {
  const auto hasLeft = [](const auto& entry) { return entry.second.connection == 0; };
  if (static_cast<std::size_t>(std::count_if(mPeers.begin(), mPeers.end(), hasLeft)) <= mMaxDeparted) {
    return;
  }
  mPeers.erase(std::min_element(mPeers.begin(), mPeers.end(), [&](const auto& left, const auto& right) {
    const bool leftHasLeft = hasLeft(left);
    return leftHasLeft != hasLeft(right) ? leftHasLeft : left.second.changed < right.second.changed;
  }));
}
