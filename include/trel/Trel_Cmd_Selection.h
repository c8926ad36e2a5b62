#pragma once

#include <trel/Trel_DescribedCommand.h>

/// Commands about the selection on the timeline. All times are timeline positions, in the host's units. The two
/// commands carry them in different orders.

/// Sets the selection.
class TREL_EXPORT Trel_Cmd_SetCurrentSelection : public Trel_DescribedCommand<Trel_Cmd_SetCurrentSelection> {
  TREL_COMMAND(SetCurrentSelection, .revision = 1)
  /// Where the video moves when the selection changes. What the values mean is the host's to define.
  enum EUpdateVideoTo : std::int32_t {
    eUpdateVideoTo_Default = 2, ///< what a sender that does not say counts as
  };
  TREL_FIELD(Trel_I64, InTime, "in point")
  TREL_FIELD(Trel_I64, OutTime, "out point")
  TREL_FIELD(Trel_I64, PreRollStartTime, "start of the pre-roll")
  TREL_FIELD(Trel_I64, PostRollStopTime, "end of the post-roll")
  TREL_FIELD(Trel_I64, PlayStartMarkerTime, "marker at which playback starts")
  TREL_FIELD(Trel_Bool, PreRollEnabled, "play the pre-roll")
  TREL_FIELD(Trel_Bool, PostRollEnabled, "play the post-roll")
  TREL_FIELD(Trel_I32<EUpdateVideoTo>, UpdateVideoTo, "where the video moves; host-defined, 2 by default")
  static constexpr Trel_Payload kCommand{kInTime,
                                         kOutTime,
                                         kPreRollStartTime,
                                         kPostRollStopTime,
                                         kPlayStartMarkerTime,
                                         Trel_Since(1, kPreRollEnabled, false),
                                         Trel_Since(1, kPostRollEnabled, false),
                                         Trel_Since(1, kUpdateVideoTo, eUpdateVideoTo_Default)};

  Trel_Cmd_SetCurrentSelection(std::int64_t preRollStartTime, std::int64_t inTime, std::int64_t outTime,
                               std::int64_t postRollStopTime, std::int64_t playStartMarkerTime, bool preRollEnabled,
                               bool postRollEnabled, EUpdateVideoTo updateVideoTo)
      : mInTime(inTime), mOutTime(outTime), mPreRollStartTime(preRollStartTime), mPostRollStopTime(postRollStopTime),
        mPlayStartMarkerTime(playStartMarkerTime), mPreRollEnabled(preRollEnabled), mPostRollEnabled(postRollEnabled),
        mUpdateVideoTo(updateVideoTo) {}
};

/// Asks for the selection. Replies go out in revision 0, which carries no flags: they arrive false.
class TREL_EXPORT Trel_Cmd_GetCurrentSelection : public Trel_DescribedCommand<Trel_Cmd_GetCurrentSelection> {
  TREL_COMMAND(GetCurrentSelection, .synchronous = true)
  TREL_FIELD(Trel_I64, PreRollStartTime, "start of the pre-roll")
  TREL_FIELD(Trel_I64, InTime, "in point")
  TREL_FIELD(Trel_I64, OutTime, "out point")
  TREL_FIELD(Trel_I64, PostRollStopTime, "end of the post-roll")
  TREL_FIELD(Trel_I64, PlayStartMarkerTime, "marker at which playback starts")
  TREL_FIELD(Trel_Bool, PreRollEnabled, "the pre-roll is played")
  TREL_FIELD(Trel_Bool, PostRollEnabled, "the post-roll is played")
  static constexpr Trel_Payload kReply{kPreRollStartTime,
                                       kInTime,
                                       kOutTime,
                                       kPostRollStopTime,
                                       kPlayStartMarkerTime,
                                       Trel_Since(1, kPreRollEnabled),
                                       Trel_Since(1, kPostRollEnabled)};
};
