#include "Host_Transport.h"

#include "HandleCommand.h"
#include "Host_Clock.h"
#include "Host_Error.h"
#include "Host_Events.h"
#include "Host_Link.h"
#include "Host_Mirror.h"

#include <trel/Sys_Clock.h>
#include <trel/Sys_Socket.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_Cmd_Transport.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_Messenger.h>

#include <algorithm>
#include <utility>

namespace {

constexpr std::int32_t kPlaySpeed = 1;
constexpr std::int64_t kReportTimeOut = 2'000'000; // microseconds after the start
constexpr std::int64_t kNoticeablyLate = 5000;     // microseconds

/// A time that adds to and subtracts from any other of the link without an overflow. Peers may tell others.
bool IsSane(std::int64_t runningTime) {
  constexpr std::int64_t kLongest = std::int64_t{100} * 365 * 24 * 3600 * 1'000'000; // microseconds; a century
  return runningTime >= -kLongest && runningTime <= kLongest;
}

std::string LateText(std::int64_t late) {
  return late < 0 ? std::to_string(-late) + " us early" : std::to_string(late) + " us late";
}

} // namespace

Host_Transport::Host_Transport(Host_Link& link, Host_State& state, Host_Clock& clock, Host_Mirror& mirror,
                               Host_Events& events)
    : mLink(link), mState(state), mClock(clock), mMirror(mirror), mEvents(events),
      mPlayer([this](std::int64_t runningTime) { return mClock.HostTime(runningTime); },
              [this](std::int64_t runningTime) {
                const bool isTime = mClock.WaitUntil(runningTime);
                if (!isTime) {
                  mEvents.Tell({.kind = "start_failed",
                                .text = "cannot start: the clock is not locked to the master's any more",
                                .fields = {{"running_time", runningTime}}});
                }
                return isTime;
              },
              [this](std::int64_t runningTime, std::int64_t rawTime) { OnStarted(runningTime, rawTime); }) {}

void Host_Transport::SetHandlers() {
  HandleCommand<Trel_Cmd_Prime, &Host_Transport::OnPrime>(this);
  HandleCommand<Trel_Cmd_StartPlayback, &Host_Transport::OnStartPlayback>(this);
  HandleCommand<Trel_Cmd_StopPlayback, &Host_Transport::OnStopPlayback>(this);
  HandleCommand<Trel_Cmd_ReportPlayStartData, &Host_Transport::OnReportPlayStartData>(this);
  HandleCommand<Trel_Cmd_GetPlayRange, &Host_Transport::OnGetPlayRange>(this);
  HandleCommand<Trel_Cmd_GetStartDelay, &Host_Transport::OnGetStartDelay>(this);
  HandleCommand<Trel_Cmd_GetCurrentRunningTime, &Host_Transport::OnGetCurrentRunningTime>(this);
}

void Host_Transport::Prime(const Host_State::Selection& range) {
  mLink.ExpectControl();
  TakePrime(range, Host_Link::OwnAddress());
}

std::int64_t Host_Transport::Start(std::int64_t in) {
  mLink.ExpectControl();
  const auto now = mClock.RunningTime(Sys_Clock::Microseconds());
  if (!now) {
    throw Host_Error("the clock of this system is not locked to the master's yet; wait for it with: wait locked");
  }
  if (mState.IsTakingPart() && mState.GetOwn().transport != eTrel_State_PrimeCompleted) {
    throw Host_Error("nothing is primed; prime first with: prime");
  }
  TakeStart(*now + in, Host_Link::OwnAddress());
  return *now + in;
}

void Host_Transport::Stop() {
  mLink.ExpectControl();
  TakeStop(Host_Link::OwnAddress());
}

std::set<std::uint32_t> Host_Transport::Listeners(std::uint32_t by) const {
  if (!mLink.IsMaster() && by != Host_Link::OwnAddress()) {
    return {};
  }
  std::set<std::uint32_t> listeners = mLink.Linked();
  listeners.erase(by);
  return listeners;
}

void Host_Transport::TakePrime(const Host_State::Selection& range, std::uint32_t by) {
  for (const std::uint32_t address : Listeners(by)) {
    Trel_Messenger::Prime(range.in, range.in, range.out, range.out, kPlaySpeed, address);
  }
  if (!mState.IsTakingPart()) {
    return;
  }
  {
    const std::lock_guard lock(mMutex);
    const bool isKnown = mStart && mRange == range && mState.GetOwn().transport == eTrel_State_PrimeCompleted;
    if (isKnown && by != Host_Link::OwnAddress()) {
      return; // in a mesh it comes from the system in control and once more from the master, perhaps after the start
    }
    mRange = range;
    mStart.reset();
    mPlayer.Cancel();
  }
  nlohmann::json fields = mLink.FieldsOf(by);
  fields["in_us"] = range.in;
  fields["out_us"] = range.out;
  mEvents.Tell({.kind = "primed", .text = "primed, told by " + mLink.NameOf(by), .fields = std::move(fields)});
  mMirror.SetTransport(eTrel_State_PrimeCompleted);
}

void Host_Transport::TakeStart(std::int64_t runningTime, std::uint32_t by) {
  const std::set<std::uint32_t> listeners = Listeners(by);
  for (const std::uint32_t address : listeners) {
    Trel_Messenger::StartPlayback(runningTime, address);
  }
  const bool isTakingPart = mState.IsTakingPart();
  const bool isPrimed = mState.GetOwn().transport == eTrel_State_PrimeCompleted;
  const bool starts = isTakingPart && isPrimed && mClock.IsLocked();
  {
    const std::lock_guard lock(mMutex);
    if (mStart == runningTime) {
      return;
    }
    mLastStart.clear();
    if (mLink.IsMaster()) {
      mRound = Round{.runningTime = runningTime, .expected = mLink.Linked(), .late = {}};
      for (const auto& [address, system] : mState.GetOthers()) {
        if (system.link < eTrel_LinkState_LinkedNotPlayable) {
          mRound->expected.erase(address);
        }
      }
      if (starts) {
        mRound->expected.insert(Host_Link::OwnAddress());
      }
    }
    if (starts) {
      mStart = runningTime;
      mPlayer.Start(runningTime);
    }
  }
  nlohmann::json fields = mLink.FieldsOf(by);
  fields["running_time"] = runningTime;
  if (!starts) {
    if (isTakingPart) {
      mEvents.Tell({.kind = "start_failed",
                    .text = std::string("cannot start: ") +
                            (isPrimed ? "the clock of this system is not locked to the master's yet"
                                      : "this system is not primed"),
                    .fields = std::move(fields)});
    }
    return;
  }
  const std::int64_t in = runningTime - mClock.RunningTime(Sys_Clock::Microseconds()).value_or(runningTime);
  fields["in_us"] = in;
  mEvents.Tell({.kind = "start",
                .text = "starts in " + std::to_string(in / 1000) + " ms, told by " + mLink.NameOf(by),
                .fields = std::move(fields)});
}

void Host_Transport::TakeStop(std::uint32_t by) {
  for (const std::uint32_t address : Listeners(by)) {
    Trel_Messenger::StopPlayback(address);
  }
  {
    const std::lock_guard lock(mMutex);
    mPlayer.Cancel();
    mStart.reset();
    mRound.reset();
  }
  if (mState.GetOwn().transport != eTrel_State_Stop) {
    mEvents.Tell({.kind = "stopped", .text = "stopped, told by " + mLink.NameOf(by), .fields = mLink.FieldsOf(by)});
    mMirror.SetTransport(eTrel_State_Stop);
  }
}

void Host_Transport::OnStarted(std::int64_t runningTime, std::int64_t rawTime) {
  const auto actual = mClock.RunningTime(Sys_Clock::FromRaw(rawTime));
  {
    const std::lock_guard lock(mMutex);
    if (mStart != runningTime || !actual) {
      return; // stopped in the last moment
    }
  }
  const std::int64_t late = *actual - runningTime;
  std::string text = "started, " + LateText(late);
  if (late > kNoticeablyLate) {
    text += "; the start came too late or this machine is too busy: give more time, as in start in 1s";
  }
  mEvents.Tell({.kind = "started", .text = text, .fields = {{"running_time", runningTime}, {"late_us", late}}});
  mMirror.SetTransport(eTrel_State_Play);
  if (mLink.IsMaster()) {
    AddReport(Host_Link::OwnAddress(), *actual);
    return;
  }
  Trel_Messenger::ReportPlayStartData(*actual, *actual, *actual, Trel_CommManager::GetMasterSystemIPAddress());
  const std::lock_guard lock(mMutex);
  mLastStart[Host_Link::OwnAddress()] = late;
  ++mStartsDone;
}

void Host_Transport::AddReport(std::uint32_t address, std::int64_t actualStart) {
  std::optional<Round> complete;
  {
    const std::lock_guard lock(mMutex);
    if (!mRound || !mRound->expected.contains(address)) {
      return;
    }
    mRound->late[address] = actualStart - mRound->runningTime;
    mLastStart = mRound->late;
    if (mRound->late.size() == mRound->expected.size()) {
      complete = std::exchange(mRound, std::nullopt);
    }
  }
  if (complete) {
    TellRound(*complete);
  }
}

void Host_Transport::Tick() {
  std::optional<Round> over;
  {
    const std::lock_guard lock(mMutex);
    const auto now = mClock.RunningTime(Sys_Clock::Microseconds());
    if (mRound && now && *now > mRound->runningTime + kReportTimeOut) {
      over = std::exchange(mRound, std::nullopt);
    }
  }
  if (over) {
    TellRound(*over);
  }
}

void Host_Transport::TellRound(const Round& round) {
  nlohmann::json late = nlohmann::json::object();
  nlohmann::json missing = nlohmann::json::array();
  std::string text;
  std::int64_t first = 0;
  std::int64_t last = 0;
  for (const auto& [address, value] : round.late) {
    first = late.empty() ? value : std::min(first, value);
    last = late.empty() ? value : std::max(last, value);
    late[Sys_Socket::DecodeIPAddress(address)] = value;
    text += "\n  " + mLink.NameOf(address) + ": " + LateText(value);
  }
  for (const std::uint32_t address : round.expected) {
    if (!round.late.contains(address)) {
      missing.push_back(Sys_Socket::DecodeIPAddress(address));
      text += "\n  " + mLink.NameOf(address) + ": has not reported its start";
    }
  }
  mEvents.Tell({.kind = "together",
                .text = std::to_string(round.late.size()) + " systems started within " + std::to_string(last - first) +
                        " us" + text,
                .fields = {{"running_time", round.runningTime},
                           {"systems", round.late.size()},
                           {"spread_us", last - first},
                           {"late_us", late},
                           {"missing", missing}}});
  const std::lock_guard lock(mMutex);
  ++mStartsDone;
}

std::int64_t Host_Transport::StartsDone() const {
  const std::lock_guard lock(mMutex);
  return mStartsDone;
}

std::map<std::uint32_t, std::int64_t> Host_Transport::LastStart() const {
  const std::lock_guard lock(mMutex);
  return mLastStart;
}

void Host_Transport::OnPrime(Trel_Cmd_Prime& command) {
  const std::uint32_t from = command.GetIPAddressFrom();
  if (mLink.MayConduct(from)) {
    TakePrime({.in = command.GetInPoint(), .out = command.GetOutPoint()}, from);
  } else {
    mMirror.Refuse("prime", from);
  }
}

void Host_Transport::OnStartPlayback(Trel_Cmd_StartPlayback& command) {
  const std::uint32_t from = command.GetIPAddressFrom();
  if (!IsSane(command.GetStartAtRunningTime())) {
    mMirror.Refuse("start", from, "there is no such time");
  } else if (mLink.MayConduct(from)) {
    TakeStart(command.GetStartAtRunningTime(), from);
  } else {
    mMirror.Refuse("start", from);
  }
}

void Host_Transport::OnStopPlayback(Trel_Cmd_StopPlayback& command) {
  const std::uint32_t from = command.GetIPAddressFrom();
  if (mLink.MayConduct(from)) {
    TakeStop(from);
  } else {
    mMirror.Refuse("stop", from);
  }
}

void Host_Transport::OnReportPlayStartData(Trel_Cmd_ReportPlayStartData& command) {
  if (IsSane(command.GetAudioPlayStartTimestamp())) {
    AddReport(command.GetIPAddressFrom(), command.GetAudioPlayStartTimestamp());
  }
}

void Host_Transport::OnGetPlayRange(Trel_Cmd_GetPlayRange& command) {
  const std::lock_guard lock(mMutex);
  command.SetPreRollStart(mRange.in);
  command.SetInPoint(mRange.in);
  command.SetOutPoint(mRange.out);
  command.SetPostRollEnd(mRange.out);
  command.SetActualStartTime(mRange.in);
  command.SetPlaySpeed(kPlaySpeed);
  command.SetLoopPlay(mState.GetShared().loopPlay);
}

void Host_Transport::OnGetStartDelay(Trel_Cmd_GetStartDelay& command) { command.SetStartDelay(0); }

void Host_Transport::OnGetCurrentRunningTime(Trel_Cmd_GetCurrentRunningTime& command) {
  command.SetRunningTime(mClock.RunningTime(Sys_Clock::Microseconds()).value_or(0));
}
