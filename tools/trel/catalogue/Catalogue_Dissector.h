#pragma once

#include <ostream>

/// The dissector for Wireshark: the template Dissector.lua with the commands of the catalogue.
void PrintDissector(std::ostream& out);
