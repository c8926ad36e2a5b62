#pragma once

#include <trel/Trel_ClockStatus.h>

#include <nlohmann/json_fwd.hpp>

/// Calls `visit(name, value, isKnown)` for each field of a clock, as recordings and those who watch a host have them.
/// Times are microseconds, signs as in Trel_ClockStatus.
template <class Status, class Visit>
void VisitClockFields(Status& status, const Visit& visit) {
  const bool isMeasured = status.measurements > 0;
  visit("state", status.state, true);
  visit("reason", status.reason, true);
  visit("locked", status.isLocked, true);
  visit("error_bound_us", status.errorBound, status.errorBound != Trel_ClockStatus::kNoErrorBound);
  visit("offset_us", status.offset, status.isLocked);
  visit("rate_ppm", status.rate, status.isLocked);
  visit("age_us", status.age, isMeasured);
  visit("measurements", status.measurements, true);
  visit("span_us", status.span, isMeasured);
  visit("residual_us", status.residualDeviation, status.measurements > 2);
  visit("round_trip_us", status.lastRoundTrip, status.lastRoundTrip != 0);
  visit("smallest_round_trip_us", status.smallestRoundTrip, status.smallestRoundTrip != 0);
  visit("round_trip_limit_us", status.roundTripLimit, status.lastRoundTrip != 0);
  visit("accepted", status.accepted, true);
  visit("rejected_not_vouched_for", status.rejectedNotVouchedFor, true);
  visit("rejected_round_trip_too_long", status.rejectedRoundTripTooLong, true);
  visit("jumps", status.jumps, true);
  visit("last_jump_us", status.lastJump, status.jumps != 0);
}

/// In words, as the fields have them.
const char* ClockText(ETrel_ClockState state);
const char* ClockText(ETrel_ClockReason reason);

/// The fields that are known.
nlohmann::json ClockFields(const Trel_ClockStatus& status);
