#pragma once

#include <trel/TCPE_Types.h>
#include <trel/Trel_Export.h>

/// @file
/// What the engine's numbers mean, in a few words for logs and displays ("connection lost"): English, lower case,
/// without a full stop; "unknown" for a number that this version does not know. Never null. Thread-safe and
/// real-time-safe.

TREL_EXPORT const char* TCPE_ErrorText(TCPE_CommErr error) noexcept;
TREL_EXPORT const char* TCPE_ErrorText(ETCPE_NetworkError error) noexcept;
TREL_EXPORT const char* TCPE_ErrorText(ETCPE_Status status) noexcept;
