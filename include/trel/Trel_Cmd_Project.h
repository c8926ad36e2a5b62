#pragma once

#include <trel/Trel_DescribedCommand.h>
#include <trel/Trel_Enumerations.h>

/// Commands about the project that a host has open. Positions and lengths are on the host's timeline, in its units.

/// Asks where the document starts and how long it is.
class TREL_EXPORT Trel_Cmd_GetDocumentStartAndLength
    : public Trel_DescribedCommand<Trel_Cmd_GetDocumentStartAndLength> {
  TREL_COMMAND(GetDocumentStartAndLength, .synchronous = true)
  TREL_FIELD(Trel_I64, Start, "timeline position of the start")
  TREL_FIELD(Trel_I64, Length, "length of the document")
  static constexpr Trel_Payload kReply{kStart, kLength};
};

/// Tells that the sequence has changed.
class TREL_EXPORT Trel_Cmd_SequenceChanged : public Trel_DescribedCommand<Trel_Cmd_SequenceChanged> {
  TREL_COMMAND(SequenceChanged, .synchronous = false)
  TREL_COMMAND_FIELD(Trel_I64AsUnsigned, IsOpened, "1: a sequence was opened, 0: closed")
};

/// Asks for the video format of the project.
class TREL_EXPORT Trel_Cmd_GetProjectRate : public Trel_DescribedCommand<Trel_Cmd_GetProjectRate> {
  TREL_COMMAND(GetProjectRate, .synchronous = true)
  TREL_REPLY_FIELD(Trel_I32<ETrel_VideoFormat>, ProjectRate, "video format, ETrel_VideoFormat")
};

/// Asks for the frame rate of playback.
class TREL_EXPORT Trel_Cmd_GetEditPlayRate : public Trel_DescribedCommand<Trel_Cmd_GetEditPlayRate> {
  TREL_COMMAND(GetEditPlayRate, .synchronous = true)
  TREL_FIELD_WITHOUT_SETTER(Trel_I32<ETrel_PlayRate>, EditPlayRate, "frame rate of playback, ETrel_PlayRate")
  TREL_FIELD(Trel_Bool, DropFrame, "time code drops frames")
  static constexpr Trel_Payload kReply{kEditPlayRate, kDropFrame};

  /// Sets the edit play rate.
  void SetPlayRate(ETrel_PlayRate rate) { mEditPlayRate = rate; }
};

/// Asks for the frame rate of digital cuts.
class TREL_EXPORT Trel_Cmd_GetDigitalCutRate : public Trel_DescribedCommand<Trel_Cmd_GetDigitalCutRate> {
  TREL_COMMAND(GetDigitalCutRate, .synchronous = true)
  TREL_REPLY_FIELD(Trel_I32<ETrel_PlayRate>, DigitalCutRate, "frame rate of digital cuts, ETrel_PlayRate")
};

/// Asks for rates and video reference at once.
class TREL_EXPORT Trel_Cmd_GetProjectInfo : public Trel_DescribedCommand<Trel_Cmd_GetProjectInfo> {
  TREL_COMMAND(GetProjectInfo, .revision = 1, .synchronous = true)
  TREL_FIELD(Trel_I32<ETrel_PlayRate>, DigitalCutRate, "frame rate of digital cuts, ETrel_PlayRate")
  TREL_FIELD(Trel_I32<ETrel_VideoFormat>, ProjectRate, "video format, ETrel_VideoFormat")
  TREL_FIELD(Trel_I32<ETrel_PlayRate>, EditPlayRate, "frame rate of playback, ETrel_PlayRate")
  TREL_FIELD(Trel_Bool, DropFrame, "time code drops frames")
  TREL_FIELD(Trel_Bool, VideoReferenceAvailable, "a video reference signal is there")
  TREL_FIELD(Trel_I32<ETrel_VideoReferenceFormat>, VideoReferenceFormat, "its format, ETrel_VideoReferenceFormat")
  static constexpr Trel_Payload kReply{kDigitalCutRate,
                                       kProjectRate,
                                       kEditPlayRate,
                                       kDropFrame,
                                       kVideoReferenceAvailable,
                                       Trel_Since(1, kVideoReferenceFormat)};
};
