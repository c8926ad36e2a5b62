#pragma once

#include "link/session/Trel_Conductor.h"
#include "link/session/Trel_ControlState.h"
#include "link/session/Trel_SessionLink.h"
#include "link/session/Trel_SessionTypes.h"
#include "link/session/Trel_SharedState.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <utility>
#include <vector>

/// The rules of the link, of one system in one role: takes what happened and the present time, gives what to do and
/// when it wants to be asked again.
///
/// No threads, clock, engine or randomness of its own; nothing in it is static, so whole links run in one test. One
/// thread at a time. After each call the owner carries out TakeActions, and calls Tick at NextDeadline. What does not
/// concern a role it ignores. While it is not running only Begin has an effect.
class Trel_SessionCore : protected Trel_SessionLink {
public:
  using Time = Trel_SessionTime;
  using System = Trel_SessionSystem;
  using Message = Trel_SessionMessage;
  using Action = Trel_SessionAction;
  using Token = Action::Token;
  using Request = Action::Request;
  using Outcome = Message::Outcome;
  using Event = Trel_LinkEvent;
  using Answer = Action::Answer::Value;

  static constexpr Time kNever = std::numeric_limits<Time>::max();

  struct Config {
    bool isMaster = false;
    bool isCurrentNumbering = true;
    std::uint32_t masterAddress = 0; ///< satellite: 0 searches for one
    bool wantsMesh = false;          ///< master
    bool reconnects = true;          ///< satellite
    Time firstPause = 250'000;
    Time longestPause = 5'000'000;
    std::uint64_t seed = 0;
  };
  /// What the owner knows; it may change at any time.
  struct Surroundings {
    System self{};
    bool allowsSatellites = false;
    std::int32_t maxSatellites = 0;
    /// Now; nothing while the clock is not locked to the master's.
    std::optional<Time> runningTime{};
    Time startDelay = 0; ///< of the host, from the start command to playback
  };

  static std::unique_ptr<Trel_SessionCore> Make(const Config& config);
  explicit Trel_SessionCore(const Config& config);
  virtual ~Trel_SessionCore();
  Trel_SessionCore(const Trel_SessionCore&) = delete;
  Trel_SessionCore& operator=(const Trel_SessionCore&) = delete;

  // --- the owner's side
  /// Before any other call, and whenever something has changed.
  virtual void Notice(const Surroundings& surroundings, Time now);
  virtual void Begin(Time now) = 0;
  /// A satellite that has left its master on the host's wish goes back.
  virtual void Resume(Time /*now*/) {}
  virtual void End(Time now) = 0;
  bool IsRunning() const { return mIsRunning; }

  std::vector<Action::Any> TakeActions() { return std::exchange(mActions, {}); }
  virtual Time NextDeadline() const = 0;
  virtual void Tick(Time now) = 0;

  // --- what happened; nothing is told of a connection when another one with that address stands
  /// A peer has opened a connection to this system.
  virtual void Connected(const System& peer, std::uint64_t instance, Time now) = 0;
  /// A peer has ended its connection in order.
  virtual void Disconnected(std::uint32_t /*address*/, Time /*now*/) {}
  /// @param isConnected there is a connection with that address all the same, which the error is not about
  virtual void NetworkError(std::uint32_t /*address*/, ETCPE_NetworkError /*error*/, bool /*isConnected*/,
                            Time /*now*/) {}
  void Received(std::uint32_t from, const Message::Any& message, Time now);
  /// A peer asks for control, or for control to be let go; an Answer with the token follows.
  virtual void ControlAsked(std::uint32_t from, Token token, Time now) = 0;

  // --- what became of actions
  /// @param instance of the peer's engine; 0 when it is not connected
  virtual void ConnectEnded(std::uint32_t /*address*/, std::uint64_t /*instance*/, Time /*now*/) {}
  virtual void SearchEnded(const std::vector<Event::System>& /*masters*/, Time /*now*/) {}
  /// @param value what the answer tells
  void SendEnded(Request request, std::uint32_t address, Outcome outcome, Time now, Time value = 0);
  virtual void HostAnswered(Token token, bool agrees, Time now) = 0;
  /// @param silence microseconds since the last byte of the peer; nothing when it is not connected
  virtual void Heard(std::uint32_t /*address*/, std::optional<Time> /*silence*/, Time /*now*/) {}

  // --- the host's wishes
  /// An Answer with the token follows.
  virtual void RequestControl(Token token, Time now) = 0;
  virtual bool SetOrderNumber(std::uint32_t /*address*/, std::int32_t /*place*/, Time /*now*/) { return false; }
  virtual bool DisconnectSystem(std::uint32_t address, Time now) = 0;
  /// This system has another name: Notice has told it.
  virtual void Renamed(Time now) = 0;

  Trel_LinkRefusal Prime(const Trel_PlayRange& range, Time now) { return mConductor.Prime(range, now); }
  /// AnswerStart with the token follows.
  void Start(const Trel_StartRequest& start, Token token, Time now) { mConductor.Start(start, token, now); }
  Trel_LinkRefusal Stop(Time now) { return mConductor.Stop(now); }
  /// The host is done with HostPrime, HostStart or HostStop. True: it is ready to play, or will begin.
  void HostDone(bool isDone, Time now) { mConductor.HostDone(isDone, now); }
  /// At running times.
  void Began(Time start, Time actual, Time now) { mConductor.Began(start, actual, now); }
  void DidNotBegin(Time start, const std::string& words, Time now) { mConductor.DidNotBegin(start, words, now); }
  /// The clock has lost the master's when it was to begin.
  void ClockLost(Time start, Time now) { mConductor.ClockLost(start, now); }
  Trel_SharedState& State() { return mState; }

  // --- what is
  const Trel_SharedState& State() const { return mState; }
  const Trel_Conductor& Conductor() const { return mConductor; }
  virtual bool IsLinked() const = 0;
  /// In their order, this one included; empty while there is no link.
  virtual std::vector<System> GetSystems() const = 0;
  std::set<std::uint32_t> GetLinkedAddresses() const override = 0;
  /// Of this system; 0 when it has none.
  std::int32_t GetPlace() const;
  const Trel_ControlState& Control() const { return mControl; }

protected:
  /// The host's request for control, from its beginning to its answer.
  struct OwnRequest {
    Token token = 0;
    Time deadline = 0;
    std::uint64_t losses = 0; ///< of the link, at its beginning
  };

  /// Whether a system is in this link, or on its way into it.
  virtual bool IsOfLink(std::uint32_t address) const = 0;
  // About building the link.
  virtual void ReceivedOfLink(std::uint32_t from, const Message::Any& message, Time now) = 0;
  virtual void SendOfLinkEnded(Request request, std::uint32_t address, Outcome outcome, Time now) = 0;

  // The link, for its other parts.
  std::uint32_t Self() const override { return mSurroundings.self.address; }
  bool IsMaster() const override { return mConfig.isMaster; }
  std::uint32_t Holder() const override { return mControl.GetHolder(); }
  bool HasControl() const override { return mControl.HasControl(); }
  std::optional<Time> RunningTime(Time now) const override;
  Request NextRequest() override { return ++mLastRequest; }
  void Send(std::set<std::uint32_t> to, Message::Any message, Request request = 0, Token waiting = 0) override;
  void Do(Action::Any action) override { mActions.push_back(std::move(action)); }
  void Tell(Event event) override;

  bool IsCurrent() const { return mConfig.isCurrentNumbering; }
  void Disconnect(std::uint32_t address) { Do(Action::Disconnect{address}); }
  Event::System Described(const System& system) const;
  /// One that changes nothing in the link.
  void TellNetworkError(std::uint32_t address, ETCPE_NetworkError error);

  // What all roles do for conducting and the shared state.
  void BeginShared();
  void EndShared(Time now);
  void TickShared(Time now);
  /// A system has been linked with this one.
  void LinkedWith(std::uint32_t address);
  void MeetInMesh(std::uint32_t address) { mState.Linked(address); }
  /// A connection is gone.
  void GoneFrom(std::uint32_t address, Time now);
  /// The link is over.
  void GoneFromAll();
  /// The clock is another system's from now on.
  void ClockReset(Time now);
  Time SharedDeadline() const {
    return std::min(mOwnRequest ? mOwnRequest->deadline : kNever, mConductor.NextDeadline());
  }
  std::uint64_t Random() { return mRandom(); }

  // Control, as any system knows it.
  /// False when the answer has been given already: nothing is to be asked for.
  bool BeginOwnRequest(Token token, Time now);
  void EndOwnRequest(Answer answer);
  /// Whether the answer to the host's request is known by now.
  void CheckOwnRequest(Time now);
  bool IsOwnRequest(Token token) const { return mOwnRequest && mOwnRequest->token == token; }
  /// This system is asked to let go: asks the host; LetGo follows with its answer. False when it does not let go
  /// anyway.
  bool AskToLetGo(std::uint32_t asker, Token token);
  /// Whether it does, by what the host has answered; nothing for a token that was not asked about.
  std::optional<bool> LetGo(Token token, bool agrees);
  void LoseLink(Time now);

  const Config mConfig;
  Surroundings mSurroundings;
  bool mHasAddress = false; // now; the one that it had stays its own
  bool mIsRunning = false;
  Trel_ControlState mControl;
  Trel_SharedState mState;
  Trel_Conductor mConductor;

private:
  struct Question {
    Token token;
    Trel_ControlState::Ticket ticket;
  };

  std::optional<Time> mRunningOffset; ///< running time minus time
  std::mt19937_64 mRandom;
  std::vector<Action::Any> mActions;
  Request mLastRequest = 0;
  std::optional<OwnRequest> mOwnRequest;
  std::vector<Question> mQuestions; ///< to the host
};
