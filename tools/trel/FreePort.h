#pragma once

#include <cstdint>

/// The preferred port if nothing listens there at an address, else one that is free.
/// Throws std::system_error when the address cannot be listened at.
std::uint16_t FreePort(std::uint32_t address, std::uint16_t preferred);
