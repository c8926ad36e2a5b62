#pragma once

#include "Host_State.h"
#include "Player.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>

class Host_Clock;
class Host_Events;
class Host_Link;
class Host_Mirror;
class Trel_Cmd_GetCurrentRunningTime;
class Trel_Cmd_GetPlayRange;
class Trel_Cmd_GetStartDelay;
class Trel_Cmd_Prime;
class Trel_Cmd_ReportPlayStartData;
class Trel_Cmd_StartPlayback;
class Trel_Cmd_StopPlayback;

/// Prime, start and stop, here and on the other systems.
///
/// Only the system in control conducts. The satellites of a star hear of it through the master, which passes on at once
/// what comes from the system in control, does it itself, and refuses everybody else. After a start each system
/// reports when it really began, and the master says how well they did.
class Host_Transport {
public:
  Host_Transport(Host_Link& link, Host_State& state, Host_Clock& clock, Host_Mirror& mirror, Host_Events& events);
  /// Before the engine starts.
  void SetHandlers();

  // These throw Host_Error when it cannot be done.
  void Prime(const Host_State::Selection& range);
  /// Starts everybody in so many microseconds.
  /// @return the running time of the start
  std::int64_t Start(std::int64_t in);
  void Stop();

  /// Called often: ends the waiting for reports that do not come.
  void Tick();
  /// Systems whose actual starts have been compared so far. On a satellite, its own starts.
  std::int64_t StartsDone() const;
  /// Actual starts minus agreed, microseconds, of those who have made the last start, as far as reported here: on a
  /// satellite its own.
  std::map<std::uint32_t, std::int64_t> LastStart() const;

private:
  /// A start, as the master follows it.
  struct Round {
    std::int64_t runningTime = 0;
    std::set<std::uint32_t> expected;
    std::map<std::uint32_t, std::int64_t> late; // actual start minus agreed, microseconds
  };

  /// From `by`, an address; tells the others as far as they do not hear it from somebody else.
  void TakePrime(const Host_State::Selection& range, std::uint32_t by);
  void TakeStart(std::int64_t runningTime, std::uint32_t by);
  void TakeStop(std::uint32_t by);
  /// The linked systems that hear from this one what `by` wants.
  std::set<std::uint32_t> Listeners(std::uint32_t by) const;
  void OnStarted(std::int64_t runningTime, std::int64_t rawTime);
  void AddReport(std::uint32_t address, std::int64_t actualStart);
  void TellRound(const Round& round);

  void OnPrime(Trel_Cmd_Prime& command);
  void OnStartPlayback(Trel_Cmd_StartPlayback& command);
  void OnStopPlayback(Trel_Cmd_StopPlayback& command);
  void OnReportPlayStartData(Trel_Cmd_ReportPlayStartData& command);
  void OnGetPlayRange(Trel_Cmd_GetPlayRange& command);
  void OnGetStartDelay(Trel_Cmd_GetStartDelay& command);
  void OnGetCurrentRunningTime(Trel_Cmd_GetCurrentRunningTime& command);

  Host_Link& mLink;
  Host_State& mState;
  Host_Clock& mClock;
  Host_Mirror& mMirror;
  Host_Events& mEvents;

  mutable std::mutex mMutex;
  Host_State::Selection mRange;
  std::optional<std::int64_t> mStart; // running time; from the start command to stop or prime
  std::optional<Round> mRound;        // master: while reports are awaited
  std::map<std::uint32_t, std::int64_t> mLastStart;
  std::int64_t mStartsDone = 0;
  Player mPlayer; // the last member: its thread uses the others
};
