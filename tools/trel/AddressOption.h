#pragma once

#include <cstdint>
#include <string>

namespace CLI {
class App;
class Option;
} // namespace CLI

/// Adds an option whose value is an IPv4 address, kept in host order.
CLI::Option* AddAddressOption(CLI::App& command, const std::string& name, std::uint32_t& address,
                              const std::string& help = {});
