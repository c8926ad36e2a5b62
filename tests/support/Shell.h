#pragma once

#include <array>
#include <cstdio>
#include <string>

#include <sys/wait.h>

struct ShellOutcome {
  int status; ///< exit status
  std::string output;
};

inline ShellOutcome RunShell(const std::string& command) {
  FILE* const pipe = popen(command.c_str(), "r");
  std::string output;
  std::array<char, 4096> bytes = {};
  for (std::size_t count = 0; (count = fread(bytes.data(), 1, bytes.size(), pipe)) > 0;) {
    output.append(bytes.data(), count);
  }
  return {WEXITSTATUS(pclose(pipe)), output};
}
