#pragma once

#include <trel/TCPE_Types.h>
#include <trel/Trel_Enumerations.h>

// What the numbers of the library mean, in words.

const char* RoleText(ETCPE_SystemType type);
const char* TransportText(ETrel_State state);
const char* LinkStateText(ETrel_LinkState state);
/// "PAL", "1080p_25"...; "none" for undefined and for what is no format.
const char* VideoReferenceText(ETrel_VideoReferenceFormat format);
