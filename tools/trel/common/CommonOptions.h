#pragma once

#include <cstdint>
#include <string>

namespace CLI {
class App;
class Option;
} // namespace CLI

// What several commands ask of the parser of the command line.

/// Adds an option whose value is an IPv4 address, kept in host order.
CLI::Option* AddAddressOption(CLI::App& command, const std::string& name, std::uint32_t& address,
                              const std::string& help = {});
/// Adds an option whose value is a port.
CLI::Option* AddPortOption(CLI::App& command, const std::string& name, std::uint16_t& port, const std::string& help);
/// Refuses numbers outside a range, which the words of the help have to tell.
void Limit(CLI::Option* option, std::int64_t least, std::int64_t most);
