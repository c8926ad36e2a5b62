#include "AddressOption.h"

#include <trel/Sys_Socket.h>

#include <CLI/CLI.hpp>

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
