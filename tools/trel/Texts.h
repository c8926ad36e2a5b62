#pragma once

#include <trel/TCPE_Types.h>
#include <trel/Trel_Enumerations.h>

#include <cstdint>
#include <string>

// What the numbers of the library mean, in words.

const char* NetworkErrorText(ETCPE_NetworkError error);
const char* StatusText(std::int32_t status);
const char* RoleText(ETCPE_SystemType type);
const char* TransportText(ETrel_State state);
const char* LinkStateText(ETrel_LinkState state);
/// "PAL", "1080p_25"...; "none" for undefined and for what is no format.
const char* VideoReferenceText(ETrel_VideoReferenceFormat format);
/// Names and messages come from the network: no control character of theirs may steer the terminal.
std::string Printable(std::string text);
