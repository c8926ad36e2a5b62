#include "tools/trel/common/CommonOptions.h"

#include <trel/Sys_Socket.h>

#include <CLI/CLI.hpp>

#include <limits>

CLI::Option* AddAddressOption(CLI::App& command, const std::string& name, std::uint32_t& address,
                              const std::string& help) {
  return command
      .add_option_function<std::string>(
          name,
          [&address, name](const std::string& text) {
            if (!Sys_Socket::EncodeIPAddress(text.c_str(), &address)) {
              throw CLI::ValidationError(name, text + " is no IPv4 address; write one like 192.168.1.10");
            }
          },
          help)
      ->type_name("ADDRESS");
}

CLI::Option* AddPortOption(CLI::App& command, const std::string& name, std::uint16_t& port, const std::string& help) {
  CLI::Option* const option = command.add_option(name, port, help)->type_name("PORT");
  Limit(option, 1, std::numeric_limits<std::uint16_t>::max());
  return option;
}

void Limit(CLI::Option* option, std::int64_t least, std::int64_t most) {
  option->check(CLI::Range(least, most).description("")); // else it stands behind the type in the help
}
