#pragma once

#include <cstdint>
#include <optional>

/// What a satellite knows of the master's time: nothing while its clock is not locked.
std::optional<std::int64_t> PredictedHostTime(std::int64_t runningTime);
std::optional<std::int64_t> PredictedRunningTime(std::int64_t hostTime);
