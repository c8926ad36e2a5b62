#include "Report_ClockFields.h"

#include <trel/Trel_ClockStatus.h>

nlohmann::json Report_ClockFields(const Trel_ClockStatus& status) {
  nlohmann::json fields = {
      {"state", status.GetStateText()},
      {"reason", status.GetReasonText()},
      {"accepted", status.mAccepted},
      {"rejected_not_vouched_for", status.mRejectedNotVouchedFor},
      {"rejected_round_trip_too_long", status.mRejectedRoundTripTooLong},
      {"jumps", status.mJumps},
  };
  if (status.mErrorBound != Trel_ClockStatus::kNoErrorBound) {
    fields["error_bound_us"] = status.mErrorBound;
  }
  if (status.mMeasurements > 0) {
    fields["age_us"] = status.mAge;
    fields["offset_us"] = status.mOffset;
    fields["rate_ppm"] = status.mRate;
    fields["round_trip_us"] = status.mLastRoundTrip;
  }
  if (status.mMeasurements > 2) {
    fields["residual_us"] = status.mResidualDeviation;
  }
  return fields;
}
