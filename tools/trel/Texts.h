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
/// Names and messages come from the network: a control character of theirs, which might steer the terminal or begin a
/// line that looks like ours, and a byte that is no UTF-8 become a question mark.
std::string Printable(const std::string& text);
/// The same for text of our own, in which such names are printable already: its lines stay.
std::string PrintableLines(const std::string& text);
