#pragma once

#include <trel/Trel_DescribedCommand.h>

/// Commands that keep the clocks in step. All times are microseconds; running time is on the master's scale.

/// First half of the running-time exchange: the master's running time at sending.
class TREL_EXPORT Trel_Cmd_UpdateRunningTime : public Trel_DescribedCommand<Trel_Cmd_UpdateRunningTime> {
  TREL_COMMAND(UpdateRunningTime, .synchronous = true, .logged = false)
  TREL_COMMAND_FIELD(Trel_I64, RunningTime, "running time at sending, us")

  explicit Trel_Cmd_UpdateRunningTime(std::int64_t runningTime) : mRunningTime(runningTime) {}
};

/// Second half: vouches for the exchange before it with the round trip that the master measured.
class TREL_EXPORT Trel_Cmd_LastUpdateRunningTimeValid
    : public Trel_DescribedCommand<Trel_Cmd_LastUpdateRunningTimeValid> {
  TREL_COMMAND(LastUpdateRunningTimeValid, .synchronous = true, .logged = false)
  TREL_COMMAND_FIELD(Trel_I64, RoundTripTime, "round trip of the exchange, us")
};

/// Empties the receiver's clock correlation.
class TREL_EXPORT Trel_Cmd_ResetClock : public Trel_DescribedCommand<Trel_Cmd_ResetClock> {
  TREL_COMMAND(ResetClock, .synchronous = true)
};

/// Reports whether the sender's clock is locked to the master's.
class TREL_EXPORT Trel_Cmd_ClockLockState : public Trel_DescribedCommand<Trel_Cmd_ClockLockState> {
  TREL_COMMAND(ClockLockState, .synchronous = false)
  TREL_COMMAND_FIELD(Trel_Bool, ClockLocked, "the sender's clock is locked")
};

/// Asks for the running time.
class TREL_EXPORT Trel_Cmd_GetCurrentRunningTime : public Trel_DescribedCommand<Trel_Cmd_GetCurrentRunningTime> {
  TREL_COMMAND(GetCurrentRunningTime, .synchronous = true, .logged = false)
  TREL_REPLY_FIELD(Trel_I64, RunningTime, "running time, us")
};

/// Carries a running time for a test of the host.
class TREL_EXPORT Trel_Cmd_TestRunningTime : public Trel_DescribedCommand<Trel_Cmd_TestRunningTime> {
  TREL_COMMAND(TestRunningTime, .synchronous = false)
  TREL_COMMAND_FIELD(Trel_I64, Time, "running time, us")

  explicit Trel_Cmd_TestRunningTime(std::int64_t time) : mTime(time) {}
};

/// Tells a system where the frame edges lie.
class TREL_EXPORT Trel_Cmd_FrameEdgeInRunningTime : public Trel_DescribedCommand<Trel_Cmd_FrameEdgeInRunningTime> {
  TREL_COMMAND(FrameEdgeInRunningTime, .synchronous = true)
  TREL_COMMAND_FIELD(Trel_I64, FrameEdgeTime, "running time of a frame edge, us")

  explicit Trel_Cmd_FrameEdgeInRunningTime(std::int64_t frameEdgeTime) : mFrameEdgeTime(frameEdgeTime) {}
};

/// Asks where the frame edges lie.
class TREL_EXPORT Trel_Cmd_GetFrameEdgeInRunningTime
    : public Trel_DescribedCommand<Trel_Cmd_GetFrameEdgeInRunningTime> {
  TREL_COMMAND(GetFrameEdgeInRunningTime, .synchronous = true)
  TREL_FIELD_WITHOUT_SETTER(Trel_I64, FrameEdge, "running time of a frame edge, us")
  virtual void SetFrameEdge(std::int64_t frameEdge) { mFrameEdge = frameEdge; }
  static constexpr Trel_Payload kReply{kFrameEdge};
};

/// Asks a system to supply the master clock, or to stop doing so.
class TREL_EXPORT Trel_Cmd_RequestSupplyMasterClock : public Trel_DescribedCommand<Trel_Cmd_RequestSupplyMasterClock> {
  TREL_COMMAND(RequestSupplyMasterClock, .synchronous = true)
  TREL_COMMAND_FIELD(Trel_Bool, SupplyMasterClock, "supply the master clock")
  TREL_REPLY_FIELD(Trel_Bool, Success, "the system does as asked")
};

/// Tells whether the sender can supply the master clock.
class TREL_EXPORT Trel_Cmd_UpdateCanSupplyClock : public Trel_DescribedCommand<Trel_Cmd_UpdateCanSupplyClock> {
  TREL_COMMAND(UpdateCanSupplyClock, .synchronous = false)
  TREL_COMMAND_FIELD(Trel_Bool, CanSupplyClock, "the sender can supply the master clock")

  explicit Trel_Cmd_UpdateCanSupplyClock(bool canSupplyClock) : mCanSupplyClock(canSupplyClock) {}
};

/// Says which system supplies the master clock: by its identifier, in the legacy numbering by its address.
class TREL_EXPORT Trel_Cmd_UpdateMasterClockSource : public Trel_DescribedCommand<Trel_Cmd_UpdateMasterClockSource> {
  TREL_COMMAND(UpdateMasterClockSource, .synchronous = false)
  TREL_FIELD(Trel_I32<>, UniqueID, "identifier of the system that supplies the clock")
  TREL_FIELD(Trel_IPv4, MasterClock, "address of the system that supplies the clock")
  static constexpr Trel_Payload kCommand{Trel_InCurrent(kUniqueID), Trel_InLegacy(kMasterClock)};
};

/// Asks which timeline position belongs to which running time.
class TREL_EXPORT Trel_Cmd_GetPositionRunningTimeCorrelation
    : public Trel_DescribedCommand<Trel_Cmd_GetPositionRunningTimeCorrelation> {
  TREL_COMMAND(GetPositionRunningTimeCorrelation, .synchronous = true)
  TREL_FIELD(Trel_I64, Position, "timeline position")
  TREL_FIELD(Trel_I64, RunningTime, "running time at that position, us")
  static constexpr Trel_Payload kReply{kPosition, kRunningTime};
};

/// Ends the hand-over of the master clock.
class TREL_EXPORT Trel_Cmd_RequestSupplyMasterClockComplete
    : public Trel_DescribedCommand<Trel_Cmd_RequestSupplyMasterClockComplete> {
  TREL_COMMAND(RequestSupplyMasterClockComplete, .synchronous = true, .currentOnly = true)
  TREL_COMMAND_FIELD(Trel_Bool, Success, "the hand-over succeeded")
};

/// Asks whether a system holds the master clock.
class TREL_EXPORT Trel_Cmd_GetIsMasterClock : public Trel_DescribedCommand<Trel_Cmd_GetIsMasterClock> {
  TREL_COMMAND(GetIsMasterClock, .synchronous = true, .currentOnly = true)
  TREL_REPLY_FIELD(Trel_Bool, IsMasterClock, "the system holds the master clock")
};
