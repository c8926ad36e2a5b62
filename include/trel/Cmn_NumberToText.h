#pragma once

#include <trel/Trel_Export.h>

#include <cstdint>
#include <string>

/// @file
/// Decimal text of a number: no leading zeros, no grouping, '-' before negative numbers, independent of the locale.
/// Thread-safe. Not real-time-safe: the text may allocate.

TREL_EXPORT std::string Cmn_Int32ToString(std::int32_t number);
TREL_EXPORT std::string Cmn_UInt32ToString(std::uint32_t number);
TREL_EXPORT std::string Cmn_Int64ToString(std::int64_t number);
