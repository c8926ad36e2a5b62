#pragma once

#include <algorithm>
#include <sstream>
#include <string>

/// Bytes from hexadecimal text: groups between blanks, "*n" after a group repeats it ("0a01 00*6" has eight bytes).
inline std::string FromHex(const char* text) {
  std::string bytes;
  std::istringstream groups(text);
  for (std::string group; groups >> group;) {
    const std::size_t star = group.find('*');
    const int times = star == std::string::npos ? 1 : std::stoi(group.substr(star + 1));
    for (int i = 0; i < times; ++i) {
      for (std::size_t digit = 0; digit + 1 < std::min(star, group.size()); digit += 2) {
        bytes += static_cast<char>(std::stoi(group.substr(digit, 2), nullptr, 16));
      }
    }
  }
  return bytes;
}
