#include "link/session/Trel_Conductor.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace {

// Microseconds.
constexpr Trel_SessionTime kReportTime = 2'000'000;    // after a start, for the reports of it
constexpr Trel_SessionTime kDoubtTime = 500'000;       // for who was primed to say that it primes anew
constexpr Trel_SessionTime kLongestQuestion = 500'000; // for the start delays of the others
constexpr Trel_SessionTime kStartMargin = 100'000;     // beyond what delays and round trips ask for
constexpr Trel_SessionTime kClockTolerance = 10'000;   // between the clocks of two systems
constexpr Trel_SessionTime kJoinLead = 300'000;        // to who joins, beyond its start delay

} // namespace

bool Trel_Conductor::IsSane(Time runningTime) {
  constexpr Time kLongest = Time{100} * 365 * 24 * 3600 * 1'000'000; // a century
  return runningTime >= -kLongest && runningTime <= kLongest;
}

void Trel_Conductor::SetStartDelay(Time delay) {
  mOwnDelay = std::clamp<Time>(delay, 0, std::numeric_limits<std::uint32_t>::max()); // as far as it can be told
}

Trel_SessionTime Trel_Conductor::GetStartDelay() const {
  Time longest = mOwnDelay;
  for (const auto& [address, delay] : mDelays) {
    longest = std::max(longest, delay);
  }
  return longest;
}

// --- the host -------------------------------------------------------------------------------------------------------

Trel_LinkRefusal Trel_Conductor::Prime(const Trel_PlayRange& range, Time now) {
  const Trel_LinkRefusal refusal = mLink.WhyNotInControl();
  if (refusal == Trel_LinkRefusal::none) {
    TakePrime(range, mLink.Self(), now);
  }
  return refusal;
}

Trel_LinkRefusal Trel_Conductor::Stop(Time now) {
  const Trel_LinkRefusal refusal = mLink.WhyNotInControl();
  if (refusal == Trel_LinkRefusal::none) {
    TakeStop(mLink.Self(), now);
  }
  return refusal;
}

void Trel_Conductor::Start(const Trel_StartRequest& start, Action::Token token, Time now) {
  using When = Trel_StartRequest::When;
  Trel_StartAnswer answer = {.refusal = WhyNotStart(start, now)};
  if (answer.refusal == Trel_LinkRefusal::none) {
    answer.unready = FindUnready();
    if (!answer.unready.empty() && !start.withoutUnready) {
      answer.refusal = Trel_LinkRefusal::othersNotReady;
    }
  }
  const std::set<std::uint32_t> linked = mLink.GetLinkedAddresses();
  const Time running = mLink.RunningTime(now).value_or(0);
  if (answer.refusal == Trel_LinkRefusal::none && start.when == When::asSoonAsPossible && !linked.empty()) {
    if (mQuestion) { // an earlier one is answered with what is known
      AnswerQuestion(now);
    }
    mQuestion = Question{.token = token, .request = mLink.NextRequest(), .since = now, .awaited = linked};
    mQuestion->unready = std::move(answer.unready);
    mLink.Send(linked, Message::GetStartDelay{}, mQuestion->request);
    return;
  }
  if (answer.refusal == Trel_LinkRefusal::none) {
    answer.runningTime = start.when == When::at   ? start.time
                         : start.when == When::in ? running + start.time
                                                  : running + mOwnDelay + kStartMargin;
    TakeStart(answer.runningTime, mLink.Self(), now);
  }
  mLink.Do(Action::AnswerStart{token, std::move(answer)});
}

Trel_LinkRefusal Trel_Conductor::WhyNotStart(const Trel_StartRequest& start, Time now) const {
  using When = Trel_StartRequest::When;
  if (const Trel_LinkRefusal refusal = mLink.WhyNotInControl(); refusal != Trel_LinkRefusal::none) {
    return refusal;
  }
  const auto running = mLink.RunningTime(now);
  if (!running) {
    return Trel_LinkRefusal::clockNotLocked;
  }
  if (start.when != When::asSoonAsPossible) {
    const Time earliest = start.when == When::at ? *running : 0;
    if (start.time < earliest) {
      return Trel_LinkRefusal::inThePast;
    }
    if (start.time > earliest + Trel_StartRequest::kFarthest) {
      return Trel_LinkRefusal::tooFarAhead;
    }
  }
  const Trel_SystemState& own = mState.Own();
  return own.IsTakingPart() && own.transport != eTrel_State_PrimeCompleted ? Trel_LinkRefusal::notPrimed
                                                                           : Trel_LinkRefusal::none;
}

std::map<std::uint32_t, Trel_LinkUnready> Trel_Conductor::FindUnready() const {
  std::map<std::uint32_t, Trel_LinkUnready> unready;
  for (const std::uint32_t address : mLink.GetLinkedAddresses()) {
    const Trel_SystemState other = mState.Of(address);
    if (!other.IsTakingPart()) {
      continue;
    }
    if (other.transport != eTrel_State_PrimeCompleted) {
      unready[address] = Trel_LinkUnready::notPrimed;
    } else if (address != mLink.Master() && !other.isClockLocked) {
      unready[address] = Trel_LinkUnready::clockNotLocked;
    }
  }
  return unready;
}

void Trel_Conductor::AnswerQuestion(Time now) {
  const Question question = *std::exchange(mQuestion, std::nullopt);
  Trel_StartAnswer answer = {.refusal = WhyNotStart({}, now), .unready = question.unready};
  if (answer.refusal == Trel_LinkRefusal::none) {
    // A satellite's start goes through the master: two ways for those behind it.
    const Time ways = (mLink.IsMaster() ? 1 : 2) * question.longestRoundTrip;
    answer.runningTime = *mLink.RunningTime(now) + std::max(mOwnDelay, question.longestDelay) + ways + kStartMargin;
    TakeStart(answer.runningTime, mLink.Self(), now);
  }
  mLink.Do(Action::AnswerStart{question.token, std::move(answer)});
}

void Trel_Conductor::SendEnded(Action::Request request, std::uint32_t address, Outcome outcome, Time value, Time now) {
  const bool isTold = outcome == Outcome::confirmed;
  if (request == mDelayRequest && isTold && value <= kLongestDelay && mLink.GetLinkedAddresses().contains(address)) {
    mDelays[address] = value;
  }
  if (!mQuestion || mQuestion->request != request || mQuestion->awaited.erase(address) == 0) {
    return;
  }
  if (isTold && value > kLongestDelay) {
    mQuestion->unready[address] = Trel_LinkUnready::delayTooLong;
  } else if (isTold) {
    mQuestion->longestDelay = std::max(mQuestion->longestDelay, value);
    mQuestion->longestRoundTrip = std::max(mQuestion->longestRoundTrip, now - mQuestion->since);
  }
  if (mQuestion->awaited.empty()) {
    AnswerQuestion(now);
  }
}

/// One thing at a time, a stop first.
void Trel_Conductor::AskHost() {
  if (mAsked != Asked::nothing) {
    return;
  }
  if (std::exchange(mWanted.stop, false) && std::exchange(mHasSomething, false)) {
    mAsked = Asked::stop;
    mLink.Do(Action::HostStop{});
  } else if (mWanted.prime) {
    mAsked = Asked::prime;
    mHasSomething = true;
    mLink.Do(Action::HostPrime{*std::exchange(mWanted.prime, std::nullopt)});
  } else if (std::exchange(mWanted.start, false) && mAgreed) {
    mAsked = Asked::start;
    mAskedStart = mAgreed->start.runningTime;
    mLink.Do(Action::HostStart{mAgreed->start});
  }
}

void Trel_Conductor::HostDone(bool isDone, Time now) {
  const Asked asked = std::exchange(mAsked, Asked::nothing);
  if (asked == Asked::prime && !mWanted.prime && mState.Own().transport == eTrel_State_Priming) {
    mLink.Tell(
        {.kind = isDone ? Kind::primed : Kind::primeFailed, .system = mLink.Describe(mPrimedBy), .range = mRange});
    mState.SetTransport(isDone ? eTrel_State_PrimeCompleted : eTrel_State_Stop);
    mReadySince = now;
    if (mAgreed && !mAgreed->isOver) { // the start has come meanwhile
      const Time start = mAgreed->requested;
      if (mLink.RunningTime(now).value_or(start) > start) {
        Fail(start, Reason::notPrimed, now);
      } else {
        Agree(start, mAgreed->by, now);
      }
    }
  } else if (asked == Asked::start && !isDone && mAgreed) {
    Fail(mAskedStart, Reason::declined, now, mAgreed->start.late);
  }
  AskHost();
}

// --- prime, start, stop ---------------------------------------------------------------------------------------------

bool Trel_Conductor::IsSecondHand(std::uint32_t by) const {
  const std::uint32_t holder = mLink.Holder();
  return by == mLink.Master() && by != holder && mPrimedBy == holder;
}

void Trel_Conductor::TakePrime(const Trel_PlayRange& range, std::uint32_t by, Time now) {
  const std::set<std::uint32_t> listeners = mLink.Listeners(by);
  mLink.Send(listeners, Message::Prime{range});
  for (const std::uint32_t address : listeners) {
    if (mState.Doubt(address)) {
      mDoubtEnds = now + kDoubtTime;
    }
  }
  mRunning.reset();
  mJoining.clear();
  EndRound(now);
  const Trel_SystemState& own = mState.Own();
  const bool isKnown = mRange == range && (own.transport == eTrel_State_Priming || mAgreed) && IsSecondHand(by);
  mRange = range;
  if (!own.IsTakingPart() || isKnown) {
    return;
  }
  GiveUp(Reason::superseded, now);
  mAgreed.reset();
  mPrimedBy = by;
  mWanted.prime = range;
  mWanted.start = false;
  mState.SetTransport(eTrel_State_Priming);
  AskHost();
}

void Trel_Conductor::TakeStart(Time runningTime, std::uint32_t by, Time now) {
  mLink.Send(mLink.Listeners(by), Message::StartPlayback{runningTime});
  const bool isReady = mState.Own().transport == eTrel_State_PrimeCompleted;
  if (mAgreed && mAgreed->requested == runningTime && !(mAgreed->isOver && isReady)) {
    return;
  }
  GiveUp(Reason::superseded, now);
  const bool isTakingPart = mState.Own().IsTakingPart();
  if (mLink.IsMaster()) {
    EndRound(now);
    mRunning = runningTime;
    mJoining.clear();
    BeginRound(runningTime, now);
  }
  mLastStart.clear();
  if (isTakingPart) {
    Agree(runningTime, by, now);
  }
}

void Trel_Conductor::Agree(Time runningTime, std::uint32_t by, Time now) {
  const auto running = mLink.RunningTime(now);
  mAgreed = Agreed{.start = {.runningTime = runningTime, .position = mRange.in}, .requested = runningTime, .by = by};
  Trel_AgreedStart& start = mAgreed->start;
  if (running && mState.Own().transport == eTrel_State_Priming) { // decided when the host has got ready
    mAgreed->givenUpAt = now + std::max<Time>(0, runningTime - *running) + mOwnDelay + kReportTime;
    return;
  }
  const bool isPrimed = mState.Own().transport == eTrel_State_PrimeCompleted;
  if (!isPrimed || !running) {
    Fail(runningTime, isPrimed ? Reason::clockNotLocked : Reason::notPrimed, now);
    return;
  }
  if (!mLink.IsMaster() && *running - (now - mReadySince) > runningTime) { // it is not the start that was late
    start.isJoining = true;
    start.runningTime = *running + mOwnDelay + kJoinLead;
    start.position = PositionAt(start.runningTime, runningTime);
  } else {
    start.late = std::max<Time>(0, *running - runningTime);
  }
  mAgreed->givenUpAt = now + std::max<Time>(0, start.runningTime - *running) + mOwnDelay + kReportTime;
  mLink.Tell(
      {.kind = Kind::start, .value = start.runningTime - *running, .system = mLink.Describe(by), .start = start});
  mWanted.start = true;
  AskHost();
}

Trel_SessionTime Trel_Conductor::PositionAt(Time runningTime, Time start) const {
  if (!IsSane(mRange.in) || !IsSane(mRange.out)) {
    return mRange.in;
  }
  const Time length = mRange.out - mRange.in;
  const Time played = runningTime - start;
  return mRange.in + (mState.Shared().loopPlay && length > 0 ? played % length : played);
}

void Trel_Conductor::TakeStop(std::uint32_t by, Time now) {
  mLink.Send(mLink.Listeners(by), Message::StopPlayback{});
  mRunning.reset();
  mJoining.clear();
  EndRound(now);
  GiveUp(Reason::superseded, now);
  mAgreed.reset();
  mWanted.prime.reset();
  mWanted.start = false;
  if (mState.Own().transport != eTrel_State_Stop) {
    mLink.Tell({.kind = Kind::stopped, .system = mLink.Describe(by)});
    mState.SetTransport(eTrel_State_Stop);
    mWanted.stop = true;
    AskHost();
  }
}

void Trel_Conductor::Began(Time runningTime, Time actual, Time now) {
  if (!mAgreed || mAgreed->start.runningTime != runningTime || !IsSane(actual) || !EndAgreed(runningTime)) {
    return; // stopped, or given up, in the last moment
  }
  mLink.Tell({.kind = Kind::started,
              .value = actual - runningTime,
              .system = mLink.Describe(mAgreed->by),
              .start = mAgreed->start});
  mState.SetTransport(eTrel_State_Play);
  if (mLink.IsMaster()) {
    NoteReport(mLink.Self(), actual, now);
    return;
  }
  mLastStart[mLink.Self()] = actual - runningTime;
  if (mLink.Master() != 0) {
    mLink.Send({mLink.Master()}, Message::ReportPlayStartData{actual});
  }
}

void Trel_Conductor::DidNotBegin(Time runningTime, const std::string& words, Time now) {
  Fail(runningTime, Reason::declined, now, mAgreed ? mAgreed->start.late : 0, words);
}

void Trel_Conductor::ClockLost(Time runningTime, Time now) { Fail(runningTime, Reason::clockNotLocked, now); }

bool Trel_Conductor::EndAgreed(Time runningTime) {
  return mAgreed && mAgreed->start.runningTime == runningTime && !std::exchange(mAgreed->isOver, true);
}

void Trel_Conductor::Fail(Time runningTime, Reason reason, Time now, Time value, const std::string& words) {
  if (!EndAgreed(runningTime)) {
    return;
  }
  mWanted.start = false;
  mLink.Tell({.kind = Kind::startFailed,
              .reason = reason,
              .value = value,
              .system = mLink.Describe(mAgreed->by),
              .start = mAgreed->start,
              .words = words});
  if (mState.Own().transport == eTrel_State_PrimeCompleted && reason != Reason::superseded) {
    mState.SetTransport(eTrel_State_Stop);
    mWanted.stop = true;
    AskHost();
  }
  NoteMissing(mLink.Self(), Missing::failed, now);
}

void Trel_Conductor::GiveUp(Reason reason, Time now) {
  if (mAgreed) {
    Fail(mAgreed->start.runningTime, reason, now);
  }
}

void Trel_Conductor::ClockReset(Time now) {
  GiveUp(Reason::masterGone, now);
  mAgreed.reset(); // of a running time that means nothing now
}

void Trel_Conductor::Begin() {
  mAsked = Asked::nothing;
  mWanted = {};
}

void Trel_Conductor::End(Time now) {
  if (mQuestion) {
    mLink.Do(Action::AnswerStart{std::exchange(mQuestion, std::nullopt)->token, {Trel_LinkRefusal::notLinked}});
  }
  mWanted = {};
  GiveUp(Reason::superseded, now);
  mAgreed.reset();
  mDoubtEnds.reset();
  mRound.reset();
  mRunning.reset();
  mJoining.clear();
  mDelays.clear();
  const ETrel_State transport = mState.Own().transport;
  if (transport != eTrel_State_Play && transport != eTrel_State_Stop) {
    mState.SetTransport(eTrel_State_Stop);
    mWanted.stop = true;
    AskHost();
  }
}

// --- what the others tell -------------------------------------------------------------------------------------------

void Trel_Conductor::On(std::uint32_t from, const Message::Prime& message, Time now) {
  if (mLink.MayConduct(from)) {
    TakePrime(message.range, from, now);
  } else {
    mLink.TellRefused(Event::Wish::prime, from);
  }
}

void Trel_Conductor::On(std::uint32_t from, const Message::StartPlayback& message, Time now) {
  const auto running = mLink.RunningTime(now);
  if (!IsSane(message.runningTime)) {
    mLink.TellRefused(Event::Wish::start, from, Reason::noSuchTime);
  } else if (running && message.runningTime - *running > Trel_StartRequest::kFarthest) {
    mLink.TellRefused(Event::Wish::start, from, Reason::tooFarAhead);
  } else if (mLink.MayConduct(from)) {
    TakeStart(message.runningTime, from, now);
  } else {
    mLink.TellRefused(Event::Wish::start, from);
  }
}

void Trel_Conductor::On(std::uint32_t from, const Message::StopPlayback& /*message*/, Time now) {
  if (mLink.MayConduct(from)) {
    TakeStop(from, now);
  } else {
    mLink.TellRefused(Event::Wish::stop, from);
  }
}

void Trel_Conductor::On(std::uint32_t from, const Message::ReportPlayStartData& message, Time now) {
  if (IsSane(message.runningTime)) {
    NoteReport(from, message.runningTime, now);
  }
}

void Trel_Conductor::Linked(std::uint32_t address) {
  if (mLink.IsMaster() && mRunning) {
    mJoining[address] = false;
    mLink.Send({address}, Message::Prime{mRange});
  }
}

void Trel_Conductor::Gone(std::uint32_t address, Time now) {
  mJoining.erase(address);
  mDelays.erase(address);
  NoteMissing(address, Missing::lost, now);
}

void Trel_Conductor::Moved(std::uint32_t before) {
  if (mRound && mRound->expected.erase(before) != 0) {
    mRound->expected.insert(mLink.Self());
    for (auto* named : {&mRound->outcome.late, &mLastStart}) {
      if (auto own = named->extract(before)) {
        own.key() = mLink.Self();
        named->insert(std::move(own));
      }
    }
    if (auto own = mRound->outcome.missing.extract(before)) {
      own.key() = mLink.Self();
      mRound->outcome.missing.insert(std::move(own));
    }
  }
}

void Trel_Conductor::StateChanged(std::uint32_t from, ETrel_State before, Time now) {
  if (!mLink.IsMaster()) {
    return;
  }
  const Trel_SystemState other = mState.Of(from);
  const bool isPrimed = other.transport == eTrel_State_PrimeCompleted;
  if (const auto joining = mJoining.find(from); joining != mJoining.end() && mRunning) {
    // It may have been ready for something else when it came, or have played: until it has begun it is given the start
    // each time that it is ready.
    if (other.transport == eTrel_State_Play && joining->second) {
      mJoining.erase(joining);
    } else if (!isPrimed) {
      joining->second = false;
    } else if (other.isClockLocked && !std::exchange(joining->second, true)) {
      mLink.Send({from}, Message::StartPlayback{*mRunning});
    }
  }
  if (isPrimed && before != eTrel_State_PrimeCompleted && !mLink.HasControl()) {
    // The system in control asks this one, and means all behind it too.
    mDelayRequest = mDelayRequest != 0 ? mDelayRequest : mLink.NextRequest();
    mLink.Send({from}, Message::GetStartDelay{}, mDelayRequest);
  }
  if (isPrimed && mRound) { // it got ready after the start was agreed on, and may make it
    std::erase_if(mRound->outcome.missing, [from](const auto& missing) {
      return missing.first == from && missing.second == Missing::notPrimed;
    });
  }
  if (before == eTrel_State_PrimeCompleted && other.transport == eTrel_State_Stop) {
    NoteMissing(from, Missing::failed, now);
  }
}

// --- how well they did ----------------------------------------------------------------------------------------------

void Trel_Conductor::BeginRound(Time runningTime, Time now) {
  const Time running = mLink.RunningTime(now).value_or(runningTime);
  mRound = Round{.startsAt = now + std::max<Time>(0, runningTime - running),
                 .earliest = std::min(running, runningTime) - kClockTolerance};
  mRound->outcome.runningTime = runningTime;
  mRound->expected = mLink.GetLinkedAddresses();
  for (const auto& [address, other] : mState.Others()) {
    if (!other.IsTakingPart()) {
      mRound->expected.erase(address);
    } else if (other.transport != eTrel_State_PrimeCompleted && mRound->expected.contains(address)) {
      mRound->outcome.missing[address] = Missing::notPrimed;
    }
  }
  if (mState.Own().IsTakingPart()) {
    mRound->expected.insert(mLink.Self());
  }
}

void Trel_Conductor::NoteMissing(std::uint32_t address, Missing missing, Time now) {
  if (mRound && mRound->expected.contains(address) && !mRound->outcome.late.contains(address)) {
    mRound->outcome.missing[address] = missing;
    CheckRound(now);
  }
}

void Trel_Conductor::NoteReport(std::uint32_t address, Time actual, Time now) {
  if (mRound && mRound->expected.contains(address) && actual >= mRound->earliest) {
    const auto missing = mRound->outcome.missing.find(address);
    if (missing != mRound->outcome.missing.end() && missing->second == Missing::lost) {
      return; // it is back, and has joined the others
    }
    mRound->outcome.missing.erase(address);
    mRound->outcome.late[address] = actual - mRound->outcome.runningTime;
    mLastStart = mRound->outcome.late;
    CheckRound(now);
  }
}

void Trel_Conductor::CheckRound(Time now) {
  const Trel_StartOutcome& outcome = mRound->outcome;
  const bool isComplete = outcome.late.size() + outcome.missing.size() == mRound->expected.size();
  // Whoever is missing may still begin at the last moment.
  const bool isOver = isComplete && (outcome.missing.empty() || now >= mRound->startsAt);
  if (isOver || now >= mRound->startsAt + kReportTime) {
    TellRound();
  }
}

/// Another start, a prime or a stop has come.
void Trel_Conductor::EndRound(Time now) {
  if (mRound && now >= mRound->startsAt) {
    TellRound();
  }
  mRound.reset();
}

void Trel_Conductor::TellRound() {
  const Round round = *std::exchange(mRound, std::nullopt);
  Event event = {.kind = Kind::together, .outcome = round.Complete()};
  for (const std::uint32_t address : round.expected) {
    event.others.push_back(mLink.Describe(address));
  }
  mLink.Tell(std::move(event));
}

Trel_StartOutcome Trel_Conductor::Round::Complete() const {
  Trel_StartOutcome complete = outcome;
  for (const std::uint32_t address : expected) {
    if (!complete.late.contains(address)) {
      complete.missing.emplace(address, Missing::notReported);
    }
  }
  const auto [first, last] = std::minmax_element(complete.late.begin(), complete.late.end(),
                                                 [](const auto& a, const auto& b) { return a.second < b.second; });
  complete.spread = complete.late.empty() ? 0 : last->second - first->second;
  return complete;
}

// --- time -----------------------------------------------------------------------------------------------------------

Trel_SessionTime Trel_Conductor::NextDeadline() const {
  Time next = std::numeric_limits<Time>::max();
  if (mAgreed && !mAgreed->isOver) {
    next = std::min(next, mAgreed->givenUpAt);
  }
  if (mRound) {
    const bool isComplete = mRound->outcome.late.size() + mRound->outcome.missing.size() == mRound->expected.size();
    next = std::min(next, isComplete ? mRound->startsAt : mRound->startsAt + kReportTime);
  }
  next = std::min(next, mDoubtEnds.value_or(next));
  return mQuestion ? std::min(next, mQuestion->since + kLongestQuestion) : next;
}

void Trel_Conductor::Tick(Time now) {
  if (mDoubtEnds && now >= *mDoubtEnds) {
    mDoubtEnds.reset();
    mState.EndDoubt();
  }
  if (mQuestion && now >= mQuestion->since + kLongestQuestion) {
    AnswerQuestion(now);
  }
  if (mAgreed && !mAgreed->isOver && now >= mAgreed->givenUpAt) {
    GiveUp(Reason::hostSilent, now);
  }
  if (mRound) {
    CheckRound(now);
  }
}
