#pragma once

#include <trel/Trel_Export.h>

#include <cstdint>

/// When one system began to play, as Trel_Cmd_ReportPlayStartData tells it: running times, microseconds.
struct PlayStartData_t {
  std::int64_t mAudioPlayStart;
  std::int64_t mVideoPlayStart;
  std::int64_t mFrameEdge;
};

/// Compares when two systems began to play. An object belongs to one caller at a time; every operation is
/// real-time-safe and needs no initialised library.
class TREL_EXPORT Trel_Diags {
public:
  Trel_Diags() = default;
  Trel_Diags(const Trel_Diags&) = default;
  Trel_Diags& operator=(const Trel_Diags&) = default;
  virtual ~Trel_Diags() = default;

  /// Makes both records zero and the object not valid. The three results keep their values.
  void ClearData();

  /// Compares two records; the object is cleared before they are read, so they must not be its own.
  /// @param isNTSCRate true: 29.97 frames a second, a period taken as 33366 us; false: 25, 40000 us.
  /// @return whether both records were given; without them the object is cleared and not valid.
  bool CalculateDiagnostics(const PlayStartData_t* first, const PlayStartData_t* second, bool isNTSCRate);

  /// @return mDiagsValid. Nothing is written, despite the name.
  bool OutputDiagsToVornTrace() const;

  bool mDiagsValid = false; ///< the results belong to the records
  PlayStartData_t mFirstPlayStart{};
  PlayStartData_t mSecondPlayStart{};
  bool mIsNTSCRate = true;

  // The results, microseconds; without meaning until mDiagsValid has been true.
  std::int64_t mAudioStartDifference = 0; ///< first audio start minus second; positive: the first began later
  std::int64_t mVideoStartDifference = 0; ///< first video start minus second; positive: the first began later
  /// How far the second system's frame edge is from the first's next frame: the frame period minus the distance of the
  /// edges modulo the period. 0 when the edges are equal, the whole period when they are whole frames apart.
  std::int64_t mFrameEdgeOffset = 0;
};
