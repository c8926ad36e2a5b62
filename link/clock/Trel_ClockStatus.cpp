#include <trel/Trel_ClockStatus.h>

const char* Trel_ClockStatus::GetStateText() const noexcept {
  switch (state) {
  case eTrel_ClockState_NoClock:
    return "no clock";
  case eTrel_ClockState_Acquiring:
    return "acquiring";
  case eTrel_ClockState_Locked:
    return "locked";
  case eTrel_ClockState_Stable:
    return "stable";
  case eTrel_ClockState_Lost:
    return "lost";
  }
  return "unknown";
}

const char* Trel_ClockStatus::GetReasonText() const noexcept {
  switch (reason) {
  case eTrel_ClockReason_NoExchange:
    return "no running time comes from the master";
  case eTrel_ClockReason_NotVouchedFor:
    return "running times come from the master, but it vouches for none";
  case eTrel_ClockReason_RoundTripsTooLong:
    return "the round trips are above the limit";
  case eTrel_ClockReason_TooFewMeasurements:
    return "not enough measurements yet";
  case eTrel_ClockReason_NotOnALine:
    return "the measurements do not lie on a line";
  case eTrel_ClockReason_ClockJumped:
    return "a clock has jumped; measurements from before still count";
  case eTrel_ClockReason_ErrorTooLarge:
    return "the possible error is too large";
  case eTrel_ClockReason_Settling:
    return "the possible error has not been small for long enough";
  case eTrel_ClockReason_ErrorSmall:
    return "the possible error is small";
  }
  return "unknown";
}

const char* Trel_ClockStatus::GetRejectionText(ETrel_ClockRejection rejection) noexcept {
  switch (rejection) {
  case eTrel_ClockRejection_None:
    return "none";
  case eTrel_ClockRejection_NotVouchedFor:
    return "not vouched for before the next running time";
  case eTrel_ClockRejection_RoundTripTooLong:
    return "round trip above the limit";
  }
  return "unknown";
}
