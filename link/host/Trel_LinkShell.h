#pragma once

#include "link/host/Trel_LinkClock.h"
#include "link/host/Trel_LinkEvents.h"
#include "link/session/Trel_SessionCore.h"
#include "tcpe/engine/TCPE_HandlerPool.h"

#include <trel/host/Trel_LinkSession.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <type_traits>
#include <utility>

class TCPE_Command;
class Trel_Cmd_Connect;

/// The shell around a session's core: brings it what the engine's handlers, the host and the time have to say, and
/// carries out what it wants done, outside its lock.
///
/// What waits for nobody is carried out at once by whoever brought it about, one at a time and in order. What waits
/// runs on threads of its own, for each peer in order: confirmed messages, attempts to connect, searches. Whoever waits
/// for an answer about control does itself what that answer needs.
class Trel_LinkShell : public std::enable_shared_from_this<Trel_LinkShell> {
public:
  using Core = Trel_SessionCore;
  using ControlAnswer = Trel_LinkSession::ControlAnswer;

  explicit Trel_LinkShell(Trel_LinkSession::Settings settings);

  /// Tells the engine, which answers searches as soon as it runs, what this system is.
  void TakeRole() const;
  bool Start();
  /// From a thread of the session it reports an assertion and does nothing.
  void Stop();

  ControlAnswer RequestControl();
  Trel_StartAnswer StartPlayback(const Trel_StartRequest& request);
  void Rename(const char* name);
  /// Has the host tell its start delay.
  void AskStartDelay();

  const Trel_LinkSession::Settings& GetSettings() const { return mSettings; }
  const Trel_LinkClock& Clock() const { return mClock; }
  /// Asks the core something.
  template <class Function>
  auto Ask(Function function) const {
    const std::lock_guard lock(mMutex);
    return function(std::as_const(*mCore));
  }
  /// Calls a function with the core and the time, and carries out what follows from it.
  template <class Function>
  auto Feed(Function function) {
    if constexpr (std::is_void_v<decltype(function(*mCore, Core::Time()))>) {
      {
        const std::lock_guard lock(mMutex);
        function(*mCore, Notice());
        TakeActions();
      }
      CarryOutAll();
    } else {
      decltype(function(*mCore, Core::Time())) result{};
      Feed([&](Core& core, Core::Time now) { result = function(core, now); });
      return result;
    }
  }
  /// ... with what a command brings, unless another connection has taken the place of the one on which it came. Under
  /// the same lock a connection's beginning is noted: who was told of it is told of no other's end.
  template <class Function>
  void FeedWith(const TCPE_Command& command, Function function) {
    Feed([&](Core& core, Core::Time now) {
      if (!IsOutdated(command)) {
        function(core, now);
      }
    });
  }

  // What needs more than the core.
  void OnConnect(const Trel_Cmd_Connect& command);
  void OnDisconnect(const TCPE_Command& command);
  bool OnRequestControl(const TCPE_Command& command);

private:
  using Action = Trel_SessionAction;
  using Token = Action::Token;
  using Pool = TCPE_HandlerPool;
  enum class State : std::uint8_t { stopped, running, stopping };

  /// Somebody who waits for an answer.
  struct Waiter {
    std::deque<Action::Any> work{}; ///< to be done by it
    std::optional<Action::Answer::Value> answer{};
  };

  /// Whether a command is of the past: another connection with its sender stands by now.
  static bool IsOutdated(const TCPE_Command& command);
  /// Tells the core how things are, with the lock held.
  Core::Time Notice();
  template <class Begin>
  ControlAnswer AwaitAnswer(Begin begin);
  void DoForAnswer(const Action::Any& work);
  void TakeActions();
  void CarryOutAll();
  void CarryOut(const Action::Send& send);
  void CarryOut(const Action::Search& search);
  void CarryOut(const Action::Connect& connect);
  void CarryOut(const Action::Disconnect& disconnect);
  void CarryOut(const Action::Listen& listen);
  void CarryOut(const Action::SetMaster& master);
  void CarryOut(const Action::HostPrime& prime);
  void CarryOut(const Action::HostStart& start);
  void CarryOut(const Action::HostStop& stop);
  void CarryOut(Action::Tell tell);
  // Done when they are taken: at once, or by whoever waits for an answer.
  void CarryOut(const Action::ResetClock& /*reset*/) {}
  void CarryOut(const Action::AskHost& /*ask*/) {}
  void CarryOut(const Action::Answer& /*answer*/) {}
  void CarryOut(const Action::AnswerStart& /*answer*/) {}
  /// On the thread that calls the host; what it answers goes back into the core.
  template <class Call>
  void CallHost(Call call);
  bool StartThreads();
  /// @param longestJob microseconds to wait for what is under way to a peer
  void StopThreads(std::int64_t longestJob);
  /// Null while the session does not run.
  std::shared_ptr<Pool> Lanes() const;
  /// Nothing is under way to a peer that must come first.
  bool IsIdle(std::uint32_t address) const;
  /// After what is under way to a peer, at once when that is nothing.
  void InOrder(std::uint32_t address, const Pool::Job& job);
  /// On a thread that may wait, for each peer in order; false when there is no room for it.
  bool Later(std::uint32_t lane, Pool::Job job);
  bool IsOnOwnThread();
  void KeepTime();

  const Trel_LinkSession::Settings mSettings;
  Trel_LinkEvents mEvents;
  Trel_LinkClock mClock;
  std::atomic<std::int64_t> mStartDelay = 0;
  std::mutex mLifecycle; // who starts or stops holds it; comes before the other

  mutable std::mutex mMutex; // guards what follows; held for no call that waits
  std::condition_variable mChanged;
  State mState = State::stopped;
  std::unique_ptr<Core> mCore;
  std::deque<Action::Any> mActions; ///< to be carried out
  bool mIsCarryingOut = false;
  std::set<std::uint32_t> mParting; ///< to be disconnected when what is under way to them has gone
  std::map<Token, Waiter> mWaiters;
  std::map<Token, std::optional<Trel_StartAnswer>> mStartWaiters;
  Token mLastToken = 0;
  Core::Time mWakesUp = 0; ///< the thread that keeps the time

  std::shared_ptr<Pool> mPool;
  std::thread mTimeKeeper;
};
