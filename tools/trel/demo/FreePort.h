#pragma once

#include <cstdint>
#include <vector>

/// The preferred port if nothing listens there at any of the addresses, else one that is free at all of them.
/// Throws std::system_error when there is none, or when one of the addresses cannot be listened at.
std::uint16_t FreePort(const std::vector<std::uint32_t>& addresses, std::uint16_t preferred);
