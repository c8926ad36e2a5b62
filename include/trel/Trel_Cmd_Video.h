#pragma once

#include <trel/Trel_DescribedCommand.h>
#include <trel/Trel_Enumerations.h>

/// Commands about video and its reference signal.

/// Moves the video of a system.
class TREL_EXPORT Trel_Cmd_UpdateVideo : public Trel_DescribedCommand<Trel_Cmd_UpdateVideo> {
  TREL_COMMAND(UpdateVideo, .revision = 1)
  TREL_FIELD(Trel_I64, UpdateVideoLocation, "timeline position to show, in the host's units")
  TREL_FIELD(Trel_Bool, UpdateCounters, "move the counters too")
  static constexpr Trel_Payload kCommand{kUpdateVideoLocation, Trel_Since(1, kUpdateCounters)};

  Trel_Cmd_UpdateVideo(std::int64_t updateVideoLocation, bool updateCounters)
      : mUpdateVideoLocation(updateVideoLocation), mUpdateCounters(updateCounters) {}
};

/// Reports the format of the sender's video reference signal.
class TREL_EXPORT Trel_Cmd_VideoReferenceFormat : public Trel_DescribedCommand<Trel_Cmd_VideoReferenceFormat> {
  TREL_COMMAND(VideoReferenceFormat, .synchronous = false)
  TREL_COMMAND_FIELD(Trel_I32<ETrel_VideoReferenceFormat>, VideoReferenceFormat, "format, ETrel_VideoReferenceFormat")
};

/// Reports whether the sender has a video reference signal.
class TREL_EXPORT Trel_Cmd_VideoReferenceAvailable : public Trel_DescribedCommand<Trel_Cmd_VideoReferenceAvailable> {
  TREL_COMMAND(VideoReferenceAvailable, .synchronous = false)
  TREL_COMMAND_FIELD(Trel_Bool, VideoRefAvailable, "the sender has a video reference signal")

  explicit Trel_Cmd_VideoReferenceAvailable(bool available) : mVideoRefAvailable(available) {}
};
