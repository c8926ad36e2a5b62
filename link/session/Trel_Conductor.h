#pragma once

#include "link/session/Trel_SessionLink.h"
#include "link/session/Trel_SharedState.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

/// Prime, start and stop, here and on the other systems.
///
/// Only the system in control conducts. The satellites of a star hear of it through the master, which passes on at once
/// what comes from the system in control, does it itself, and refuses everybody else. After a start each system
/// reports when it really began, and the master says how well they did. A system that cannot make a start says so, and
/// tells the others that it is not primed any more. Who is linked while the others play is primed by the master and
/// given the running start; it joins them where they are by then.
///
/// The host is asked to do one thing at a time; what it is to do meanwhile is kept, the last of each kind.
class Trel_Conductor {
public:
  using Time = Trel_SessionTime;
  using Message = Trel_SessionMessage;
  using Action = Trel_SessionAction;
  using Outcome = Message::Outcome;

  static constexpr Time kLongestDelay = 10'000'000; ///< microseconds, that a system may tell

  /// A time that adds to and subtracts from any other of the link without an overflow. Peers may tell others.
  static bool IsSane(Time runningTime);

  Trel_Conductor(Trel_SessionLink& link, Trel_SharedState& state) : mLink(link), mState(state) {}

  // --- the host's wishes
  Trel_LinkRefusal Prime(const Trel_PlayRange& range, Time now);
  /// AnswerStart with the token follows.
  void Start(const Trel_StartRequest& start, Action::Token token, Time now);
  Trel_LinkRefusal Stop(Time now);

  // --- what the host has done
  /// With what it was asked last; true: it is ready to play, or will begin.
  void HostDone(bool isDone, Time now);
  /// It began at a running time, as its clock says.
  void Began(Time runningTime, Time actual, Time now);
  void ClockLost(Time runningTime, Time now);
  void DidNotBegin(Time runningTime, const std::string& words, Time now);
  /// Of this system, from the start command to playback, microseconds.
  void SetStartDelay(Time delay);

  // --- what happened
  void On(std::uint32_t from, const Message::Prime& message, Time now);
  void On(std::uint32_t from, const Message::StartPlayback& message, Time now);
  void On(std::uint32_t from, const Message::StopPlayback& message, Time now);
  void On(std::uint32_t from, const Message::ReportPlayStartData& message, Time now);
  /// A system has told its state, or that its clock is locked; the shared state knows it already.
  void StateChanged(std::uint32_t from, ETrel_State before, Time now);
  void Linked(std::uint32_t address);
  void Gone(std::uint32_t address, Time now);
  /// This system has another address.
  void Moved(std::uint32_t before);
  void ClockLocked(Time now) { mReadySince = now; }
  /// The correlation was emptied: what was agreed in running times of before is given up.
  void ClockReset(Time now);
  void SendEnded(Action::Request request, std::uint32_t address, Outcome outcome, Time value, Time now);
  /// The host does nothing of what it was asked before.
  void Begin();
  /// The session ends: nothing more is asked of the host but to stop what it was to play.
  void End(Time now);

  Time NextDeadline() const;
  void Tick(Time now);

  // --- what is
  /// That this system is to play, or plays.
  const Trel_PlayRange& GetRange() const { return mRange; }
  /// The longest delay to be told to a system that asks: of this system, on a master of those linked with it too.
  Time GetStartDelay() const;
  /// Of the last start, as far as known here.
  const std::map<std::uint32_t, Time>& GetLastStart() const { return mLastStart; }

private:
  using Event = Trel_LinkEvent;
  using Kind = Event::Kind;
  using Reason = Event::Reason;
  using Missing = Trel_StartOutcome::Missing;

  /// A start, as this system makes it.
  struct Agreed {
    Trel_AgreedStart start{};
    Time requested = 0; ///< the running time that was agreed on, another one than that of `start` when joining
    std::uint32_t by = 0;
    Time givenUpAt = 0;  ///< then the host should have told
    bool isOver = false; ///< begun, or failed
  };
  /// A start, as the master follows it.
  struct Round {
    Trel_StartOutcome outcome{};
    std::set<std::uint32_t> expected{};
    Time startsAt = 0;
    Time earliest = 0; ///< actual start; earlier ones are of the start before

    /// With all that are expected.
    Trel_StartOutcome Complete() const;
  };
  /// For a start as soon as everybody can.
  struct Question {
    Action::Token token = 0;
    Action::Request request = 0;
    Time since = 0;
    std::set<std::uint32_t> awaited{};
    Time longestRoundTrip = 0;
    Time longestDelay = 0;
    std::map<std::uint32_t, Trel_LinkUnready> unready{};
  };
  /// What is to be asked of the host when it is done with what it does.
  struct Wanted {
    bool stop = false;
    std::optional<Trel_PlayRange> prime{};
    bool start = false; ///< mAgreed
  };
  enum class Asked : std::uint8_t { nothing, prime, start, stop };

  // From `by`, an address; these tell the others as far as they do not hear it from somebody else.
  void TakePrime(const Trel_PlayRange& range, std::uint32_t by, Time now);
  void TakeStart(Time runningTime, std::uint32_t by, Time now);
  void TakeStop(std::uint32_t by, Time now);
  /// The system in control may be another program, that tells all in a mesh: then it comes once more from the master.
  bool IsSecondHand(std::uint32_t by) const;
  void AskHost();

  Trel_LinkRefusal WhyNotStart(const Trel_StartRequest& start, Time now) const;
  /// As far as this system knows: on a satellite of a star the master alone.
  std::map<std::uint32_t, Trel_LinkUnready> FindUnready() const;
  void AnswerQuestion(Time now);

  /// This system is to make a start.
  void Agree(Time runningTime, std::uint32_t by, Time now);
  /// Where the timeline is at a running time.
  Time PositionAt(Time runningTime, Time start) const;
  /// Ends an agreed start unless it is over already; tells when it has.
  bool EndAgreed(Time runningTime);
  void Fail(Time runningTime, Reason reason, Time now, Time value = 0, const std::string& words = {});
  /// Fails whatever start is agreed on.
  void GiveUp(Reason reason, Time now);

  void BeginRound(Time runningTime, Time now);
  void NoteMissing(std::uint32_t address, Missing missing, Time now);
  void NoteReport(std::uint32_t address, Time actual, Time now);
  void CheckRound(Time now);
  void EndRound(Time now);
  void TellRound();

  Trel_SessionLink& mLink;
  Trel_SharedState& mState;
  Trel_PlayRange mRange;
  std::uint32_t mPrimedBy = 0;
  std::optional<Agreed> mAgreed;  ///< from the start command to stop or prime
  std::optional<Time> mDoubtEnds; ///< about those that were primed already
  Time mReadySince = 0;           ///< primed, with a clock that was locked
  Asked mAsked = Asked::nothing;
  bool mHasSomething = false; ///< the host, to stop
  Time mAskedStart = 0;
  Wanted mWanted;
  std::optional<Question> mQuestion;
  Time mOwnDelay = 0;
  // Master: how well they do, which start is under way, and who is to join it.
  std::optional<Round> mRound;
  std::optional<Time> mRunning;
  std::map<std::uint32_t, bool> mJoining; ///< true: has been given it
  std::map<std::uint32_t, Time> mDelays;  ///< told by the others when they were primed
  Action::Request mDelayRequest = 0;
  std::map<std::uint32_t, Time> mLastStart;
};
