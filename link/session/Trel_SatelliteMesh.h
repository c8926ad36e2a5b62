#pragma once

#include "link/session/Trel_RetryPause.h"
#include "link/session/Trel_SessionTypes.h"

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

/// The connections of a satellite to other satellites. Those that this side opens on the master's word it opens again
/// when they are lost, until the master's list shows the other one no more.
class Trel_SatelliteMesh {
public:
  using Time = Trel_SessionTime;
  using System = Trel_SessionSystem;

  /// What the mesh needs of the session that it belongs to.
  class Owner {
  public:
    virtual void Connect(std::uint32_t address) = 0;
    virtual void Disconnect(std::uint32_t address) = 0;
    virtual void Listen(std::uint32_t address) = 0;
    virtual void AskPeer(const System& peer) = 0; ///< with DoConnectTo
    /// To the master: what became of the first attempt.
    virtual void Report(const System& peer, bool success) = 0;
    virtual void TellMesh(const System& peer, Trel_LinkEvent::Kind kind, Trel_LinkEvent::Reason reason,
                          ETCPE_NetworkError error) = 0;
    virtual std::uint64_t Random() = 0;

  protected:
    ~Owner() = default;
  };

  struct Settings {
    bool isCurrentNumbering = true;
    Time firstPause = 0;
    Time longestPause = 0;
  };

  Trel_SatelliteMesh(const Settings& settings, Owner& owner) : mSettings(settings), mOwner(owner) {}

  /// @param isListed the master's list shows it already
  void ConnectTo(const System& system, bool isListed);
  /// @param ownPort communication port of the link, the only one that can be connected to
  void SetPort(std::uint16_t ownPort) { mPort = ownPort; }
  /// What became of an attempt to connect.
  void ConnectEnded(std::uint32_t address, bool isConnected, Time now);
  /// The other side has answered.
  void Answered(std::uint32_t address, bool success, Time now);
  /// Another satellite has connected to this one.
  void Accepted(const System& system);
  void Heard(std::uint32_t address, bool isConnected, Time now);
  bool Knows(std::uint32_t address) const { return mPeers.contains(address); }
  /// A connection is gone.
  void Gone(std::uint32_t address, Trel_LinkEvent::Reason reason, ETCPE_NetworkError error, Time now);
  /// The master's list.
  void Listed(const std::vector<System>& systems);
  /// Ends the connection to one, named by address or identifier, 0 when it is not that; or to all.
  void Leave(std::uint32_t address, std::int32_t uniqueID);
  void LeaveAll();

  void Tick(Time now);
  Time NextDeadline() const;
  /// The master knows of every connection whether it stands.
  bool IsSettled() const;
  std::set<std::uint32_t> GetConnectedAddresses() const;

private:
  using Kind = Trel_LinkEvent::Kind;
  using Reason = Trel_LinkEvent::Reason;

  enum class State : std::uint8_t { due, connecting, asked, connected, accepted };
  struct Peer {
    System system;
    Trel_RetryPause pause;
    State state = State::due;
    Time time = 0;            ///< due: when to connect; asked: when its answer is too late
    bool opens = false;       ///< this side, on the master's word
    std::int32_t listens = 0; ///< after an accepted connection
    bool isReported = false;
    bool wasListed = false;
  };

  Peer NewPeer(const System& system) const;
  void Connect(Peer& peer, Time now);
  void Conclude(Peer& peer, bool success, Time now);

  const Settings mSettings;
  Owner& mOwner;
  std::map<std::uint32_t, Peer> mPeers;
  std::uint16_t mPort = 0;
  bool mIsConnecting = false; ///< one at a time
};
