#pragma once

#include "link/host/Trel_LinkRole.h"
#include "link/host/Trel_RetryPause.h"

#include <trel/Trel_System.h>

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

/// The connections of a satellite to other satellites. Those that this side opens on the master's word it opens again
/// when they are lost, until the master's list shows the other one no more. All on the worker.
class Trel_LinkMesh {
public:
  using Kind = Trel_LinkSession::EventKind;
  /// Tells the host.
  using Tell = std::function<void(Kind kind, const Trel_System& system, const std::string& text)>;

  Trel_LinkMesh(const Trel_LinkSession::Settings& settings, Tell tell) : mSettings(settings), mTell(std::move(tell)) {}

  void ConnectTo(const Trel_System& system);
  /// The other side has answered.
  void Answered(std::uint32_t address, bool success);
  /// Another satellite has connected to this one.
  void Accepted(const Trel_System& system);
  bool Knows(std::uint32_t address) const { return mPeers.contains(address); }
  /// A connection is gone.
  void Gone(std::uint32_t address, const std::string& text);
  /// The master's list.
  void Listed(const std::vector<Trel_System>& systems);
  /// Ends the connection to one, named by address or identifier, 0 when it is not that; or to all.
  void Leave(std::uint32_t address, std::int32_t uniqueID);
  void LeaveAll();

  /// Does one thing that is due, which may block; tells the master what became of it.
  std::int64_t Tick(std::int64_t now, std::uint32_t master);
  /// The master knows of every connection whether it stands.
  bool IsSettled() const;
  std::set<std::uint32_t> GetConnectedAddresses() const;

private:
  enum class State : std::uint8_t { due, asked, connected, accepted };
  struct Peer {
    Trel_System mSystem;
    Trel_RetryPause mPause;
    State mState = State::due;
    std::int64_t mTime = 0; ///< due: when to connect; asked: when its answer is too late
    bool mIsReported = false;
    bool mWasListed = false;
  };

  void Connect(Peer& peer, std::int64_t now, std::uint32_t master);
  void Conclude(Peer& peer, bool success, std::uint32_t master);

  const Trel_LinkSession::Settings& mSettings;
  Tell mTell;
  std::map<std::uint32_t, Peer> mPeers;
  std::uint32_t mMaster = 0;
};
