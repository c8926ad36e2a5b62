#pragma once

#include <trel/Trel_Export.h>

#include <cstdint>

/// Which of the four optional features this installation may use.
class TREL_EXPORT Cmn_FeatureAuthorization {
public:
  static constexpr std::int32_t kNumberFeatures = 4;

  /// Whether a feature, 1 to 4, is granted: always, unless the start-up option "FeatureAuthorized1" (... "4") is 0.
  /// False for any other number.
  ///
  /// Thread-safe. Not real-time-safe: reads a start-up option.
  static bool IsAuthorized(std::int32_t feature);
};
