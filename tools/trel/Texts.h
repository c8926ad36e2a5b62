#pragma once

#include <trel/TCPE_Types.h>

#include <cstdint>

// What the numbers of the library mean, in words.

const char* NetworkErrorText(ETCPE_NetworkError error);
const char* StatusText(std::int32_t status);
