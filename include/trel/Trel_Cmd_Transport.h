#pragma once

#include <trel/Trel_DescribedCommand.h>

/// Commands that move the transport. Running times are microseconds on the master's scale. Timeline positions and
/// speeds are in units of the host, which the link carries unchanged.

/// Asks a system to get ready to play a range.
class TREL_EXPORT Trel_Cmd_Prime : public Trel_DescribedCommand<Trel_Cmd_Prime> {
  TREL_COMMAND(Prime, .synchronous = false)
  TREL_FIELD(Trel_I64, PreRollStart, "timeline position at which the pre-roll starts")
  TREL_FIELD(Trel_I64, InPoint, "timeline position of the in point")
  TREL_FIELD(Trel_I64, OutPoint, "timeline position of the out point")
  TREL_FIELD(Trel_I64, PostRollEnd, "timeline position at which the post-roll ends")
  TREL_FIELD(Trel_I64, ActualStartTime, "timeline position at which playback starts")
  TREL_FIELD(Trel_I32<>, PlaySpeed, "speed, in units of the host")
  static constexpr Trel_Payload kCommand{kPreRollStart, kInPoint,         kOutPoint,
                                         kPostRollEnd,  kActualStartTime, kPlaySpeed};

  Trel_Cmd_Prime(std::int64_t preRollStart, std::int64_t inPoint, std::int64_t outPoint, std::int64_t postRollEnd,
                 std::int64_t actualStartTime, std::int32_t playSpeed)
      : mPreRollStart(preRollStart), mInPoint(inPoint), mOutPoint(outPoint), mPostRollEnd(postRollEnd),
        mActualStartTime(actualStartTime), mPlaySpeed(playSpeed) {}
};

/// Tells a system to bring its clock in step.
class TREL_EXPORT Trel_Cmd_SyncClock : public Trel_DescribedCommand<Trel_Cmd_SyncClock> {
  TREL_COMMAND(SyncClock, .synchronous = false)
};

/// Starts a primed system at an agreed instant.
class TREL_EXPORT Trel_Cmd_StartPlayback : public Trel_DescribedCommand<Trel_Cmd_StartPlayback> {
  TREL_COMMAND(StartPlayback, .synchronous = false)
  TREL_COMMAND_FIELD(Trel_I64, StartAtRunningTime, "running time of the requested start, us")

  explicit Trel_Cmd_StartPlayback(std::int64_t startAtRunningTime) : mStartAtRunningTime(startAtRunningTime) {}
};

/// Stops playback.
class TREL_EXPORT Trel_Cmd_StopPlayback : public Trel_DescribedCommand<Trel_Cmd_StopPlayback> {
  TREL_COMMAND(StopPlayback, .synchronous = false)
};

/// Asks how long a system takes from the start command to playback.
class TREL_EXPORT Trel_Cmd_GetStartDelay : public Trel_DescribedCommand<Trel_Cmd_GetStartDelay> {
  TREL_COMMAND(GetStartDelay, .synchronous = true)
  TREL_REPLY_FIELD(Trel_U32, StartDelay, "time from start command to playback, us")
};

/// Reports when playback began, in running time.
class TREL_EXPORT Trel_Cmd_ReportPlayStartData : public Trel_DescribedCommand<Trel_Cmd_ReportPlayStartData> {
  TREL_COMMAND(ReportPlayStartData, .synchronous = false)
  TREL_FIELD(Trel_I64, AudioPlayStartTimestamp, "running time of the actual start of audio, us")
  TREL_FIELD(Trel_I64, VideoPlayStartTimestamp, "running time of the actual start of video, us")
  TREL_FIELD(Trel_I64, FrameEdgeTimestamp, "running time of a frame edge, us")
  static constexpr Trel_Payload kCommand{kAudioPlayStartTimestamp, kVideoPlayStartTimestamp, kFrameEdgeTimestamp};

  Trel_Cmd_ReportPlayStartData(std::int64_t audioPlayStart, std::int64_t videoPlayStart, std::int64_t frameEdge)
      : mAudioPlayStartTimestamp(audioPlayStart), mVideoPlayStartTimestamp(videoPlayStart),
        mFrameEdgeTimestamp(frameEdge) {}
};

/// Asks for the range that a system is set to play.
class TREL_EXPORT Trel_Cmd_GetPlayRange : public Trel_DescribedCommand<Trel_Cmd_GetPlayRange> {
  TREL_COMMAND(GetPlayRange, .synchronous = true)
  TREL_FIELD(Trel_I64, PreRollStart, "timeline position at which the pre-roll starts")
  TREL_FIELD(Trel_I64, InPoint, "timeline position of the in point")
  TREL_FIELD(Trel_I64, OutPoint, "timeline position of the out point")
  TREL_FIELD(Trel_I64, PostRollEnd, "timeline position at which the post-roll ends")
  TREL_FIELD(Trel_I64, ActualStartTime, "timeline position at which playback starts")
  TREL_FIELD(Trel_I32<>, PlaySpeed, "speed, in units of the host")
  TREL_FIELD(Trel_Bool, LoopPlay, "the range plays in a loop")
  static constexpr Trel_Payload kReply{kPreRollStart,    kInPoint,   kOutPoint, kPostRollEnd,
                                       kActualStartTime, kPlaySpeed, kLoopPlay};
};

/// Sets loop play.
class TREL_EXPORT Trel_Cmd_SetLoopPlay : public Trel_DescribedCommand<Trel_Cmd_SetLoopPlay> {
  TREL_COMMAND(SetLoopPlay, .synchronous = false)
  TREL_COMMAND_FIELD(Trel_Bool, LoopPlay, "play in a loop")

  explicit Trel_Cmd_SetLoopPlay(bool loopPlay) : mLoopPlay(loopPlay) {}
};

/// Asks whether a system plays in a loop. Any byte but 1 means that it does not.
class TREL_EXPORT Trel_Cmd_GetLoopPlay : public Trel_DescribedCommand<Trel_Cmd_GetLoopPlay> {
  TREL_COMMAND(GetLoopPlay, .synchronous = true)
  TREL_REPLY_FIELD(Trel_StrictBool, LoopPlay, "the system plays in a loop")
};

/// Makes a system follow the playback of another one, named by its identifier, in the legacy numbering by its address.
class TREL_EXPORT Trel_Cmd_LockPlaybackToSystem : public Trel_DescribedCommand<Trel_Cmd_LockPlaybackToSystem> {
  TREL_COMMAND(LockPlaybackToSystem, .synchronous = false)
  TREL_FIELD(Trel_I32<>, UniqueID, "identifier of the system to follow")
  TREL_FIELD(Trel_IPv4, SystemToLockTo, "address of the system to follow")
  static constexpr Trel_Payload kCommand{Trel_InCurrent(kUniqueID), Trel_InLegacy(kSystemToLockTo)};

  explicit Trel_Cmd_LockPlaybackToSystem(std::uint32_t systemToLockTo) : mSystemToLockTo(systemToLockTo) {}
};
