#pragma once

#include "link/session/Trel_RetryPause.h"
#include "link/session/Trel_SatelliteMesh.h"
#include "link/session/Trel_SessionCore.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <vector>

/// A satellite's side of the link: finds a master, connects, goes through the sequence, and begins again after a
/// failure.
class Trel_SatelliteSession final : public Trel_SessionCore, private Trel_SatelliteMesh::Owner {
public:
  explicit Trel_SatelliteSession(const Config& config);

  void Begin(Time now) override;
  void Resume(Time now) override;
  void End(Time now) override;
  Time NextDeadline() const override;
  void Tick(Time now) override;

  void Connected(const System& peer, std::uint64_t instance, Time now) override;
  void Disconnected(std::uint32_t address, Time now) override;
  void NetworkError(std::uint32_t address, ETCPE_NetworkError error, bool isConnected, Time now) override;
  void ControlAsked(std::uint32_t from, Token token, Time now) override;

  void ConnectEnded(std::uint32_t address, std::uint64_t instance, Time now) override;
  void SearchEnded(const std::vector<Event::System>& masters, Time now) override;
  void Heard(std::uint32_t address, std::optional<Time> silence, Time now) override;
  void HostAnswered(Token token, bool agrees, Time now) override;

  void RequestControl(Token token, Time now) override;
  bool DisconnectSystem(std::uint32_t address, Time now) override;
  void Renamed(Time now) override;

  bool IsLinked() const override { return mPhase == Phase::linked; }
  std::vector<System> GetSystems() const override;
  std::set<std::uint32_t> GetLinkedAddresses() const override;

private:
  using Kind = Event::Kind;
  using Reason = Event::Reason;

  enum class Phase : std::uint8_t {
    away,       ///< does nothing until Resume
    searching,  ///< for a master
    connecting, ///< to mMaster
    failed,     ///< to connect; the reason may still come
    joining,    ///< connected, in the sequence
    completing, ///< the master is to confirm the end of the sequence
    linked,
    ending,  ///< the master does not confirm; the news of why may be on its way
    waiting, ///< before the next attempt
  };
  /// How a connection to the master has ended, or why there is none.
  struct Ending {
    Kind kind = Kind::lost; ///< or left
    ETCPE_NetworkError error = eNetworkError_None;
  };
  /// What the master has told on this connection.
  struct Told {
    std::optional<std::vector<System>> list{};
    bool isListNew = false;
    bool allConnectionsComplete = false;
    Time lastOfSequence = 0;                             ///< of the last list or ConnectTo
    std::map<std::uint32_t, System> connectTo{};         ///< not taken up yet
    std::map<std::uint32_t, std::int32_t> identifiers{}; ///< of the others, by address, as far as told
  };

  std::uint32_t Master() const override { return IsConnectedToMaster() ? mMaster : 0; }
  Event::System Describe(std::uint32_t address) const override;
  bool IsOfLink(std::uint32_t address) const override { return IsFromMaster(address) || mMesh.Knows(address); }
  void ReceivedOfLink(std::uint32_t from, const Message::Any& message, Time now) override;
  void SendOfLinkEnded(Request request, std::uint32_t address, Outcome outcome, Time now) override;

  void On(std::uint32_t from, const Message::SetMasterSystem& message, Time now);
  void On(std::uint32_t from, const Message::SetOrderNumber& message, Time now);
  void On(std::uint32_t from, const Message::ListSystems& message, Time now);
  void On(std::uint32_t from, const Message::ConnectTo& message, Time now);
  void On(std::uint32_t from, const Message::DisconnectFrom& message, Time now);
  void On(std::uint32_t from, const Message::DoConnectTo& message, Time now);
  void On(std::uint32_t from, const Message::DoConnectToComplete& message, Time now);
  void On(std::uint32_t from, const Message::AllConnectionsComplete& message, Time now);
  void On(std::uint32_t from, const Message::SetSystemName& message, Time now);
  void On(std::uint32_t from, const Message::SystemInControl& message, Time now);
  template <class Other>
  void On(std::uint32_t /*from*/, const Other& /*message*/, Time /*now*/) {}

  // For the mesh.
  void Connect(std::uint32_t address) override { Do(Action::Connect{address}); }
  void Disconnect(std::uint32_t address) override {
    Trel_SessionCore::Disconnect(address);
    mState.Forget(address);
  }
  void Listen(std::uint32_t address) override { Do(Action::Listen{address}); }
  void AskPeer(const System& peer) override { Send({peer.address}, Message::DoConnectTo{peer.uniqueID}); }
  void Report(const System& peer, bool success) override;
  void TellMesh(const System& peer, Kind kind, Reason reason, ETCPE_NetworkError error) override;
  std::uint64_t Random() override { return Trel_SessionCore::Random(); }

  bool IsFromMaster(std::uint32_t address) const { return address != 0 && address == mMaster; }
  bool IsConnectedToMaster() const {
    return mPhase == Phase::joining || mPhase == Phase::completing || mPhase == Phase::linked;
  }
  void BeginAttempt();
  void ConnectTo(std::uint32_t master);
  void GoOn(Time now);
  /// When the sequence can be ended, or has failed.
  Time WhenJoined() const;
  void Complete(Time now);
  void Linked();
  void TakeUpWhatWasTold();
  /// The connection to the master is gone, or was not granted.
  void MasterGone(const Ending& ending, Time now);
  void TellRefusal(Time now);
  void NotLinkedInTime(Time now);
  void EndLink(Time now);
  void Wait(Time pause, Time now);
  /// With what it knows of itself and has been told of the others, in their order.
  std::vector<System> GetListed() const;
  bool IsListed(std::uint32_t address) const;
  /// 0 when it is not known.
  std::uint32_t AddressOf(std::int32_t uniqueID) const;

  std::uint32_t mMaster = 0;
  Phase mPhase = Phase::away;
  Time mDue = 0;                      ///< of the phase
  std::int32_t mAttempts = 0;         ///< to connect to a master, whose outcome is not known
  std::optional<Ending> mEarlyEnding; ///< of a connection whose opening is not known yet
  Request mCompletion = 0;
  Request mControlRequest = 0;
  Token mControlToken = 0;
  Told mTold;
  Trel_RetryPause mPause;
  Trel_SatelliteMesh mMesh;
  std::optional<Reason> mToldNoMaster{};
  // Whose running time the correlation belongs to.
  std::uint32_t mClockAddress = 0;
  std::uint64_t mClockInstance = 0;
};
