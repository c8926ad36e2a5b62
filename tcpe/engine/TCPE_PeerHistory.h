#pragma once

#include "tcpe/net/TCPE_PeerTraffic.h"
#include "tcpe/protocol/TCPE_Limits.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

/// The peers that are connected, and the last ones that were. Thread-safe.
class TCPE_PeerHistory {
public:
  using TrafficPointer = std::shared_ptr<TCPE_PeerTraffic>;
  /// Tells connections apart; never 0.
  using ConnectionId = std::uint64_t;

  explicit TCPE_PeerHistory(std::size_t maxDeparted) : mMaxDeparted(maxDeparted) {}

  /// @return where the traffic of this connection is counted
  TrafficPointer Opened(std::uint32_t address, ConnectionId connection, bool openedByPeer, TCPE_Time now);
  void SetName(std::uint32_t address, const std::string& name);
  /// `error` is none when it ended in good order.
  void Ended(std::uint32_t address, ConnectionId connection, ETCPE_NetworkError error, TCPE_Time now);

  /// By address, with everything that is not the present connection's own.
  std::vector<TCPE_PeerSnapshot> Peers(TCPE_Time now) const;

private:
  struct Peer {
    TrafficPointer traffic = std::make_shared<TCPE_PeerTraffic>();
    std::string name{};
    ConnectionId connection = 0; ///< 0: it has left
    bool openedByPeer = false;
    TCPE_Time changed = 0; ///< when it connected, or left
    std::uint64_t connections = 0;
    std::uint64_t losses = 0;
    ETCPE_NetworkError lastLoss = eNetworkError_None;
    bool isLost = false; ///< the last connection, when it has ended
  };

  void ForgetTheOldest();

  const std::size_t mMaxDeparted;
  mutable std::mutex mMutex;
  std::map<std::uint32_t, Peer> mPeers;
};
