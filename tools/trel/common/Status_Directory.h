#pragma once

#include <string>
#include <vector>

/// Where running hosts can be looked into: each has a socket PID.sock in a directory of the user. Directories that
/// others could write to are left out.
class Status_Directory {
public:
  Status_Directory() = delete;

  /// The directory for a new socket, made when there is none; empty when that cannot be.
  /// @param trouble gets why, in words, when it is empty
  static std::string Make(std::string* trouble);
  /// The sockets of hosts that run, by process. Those that a host left behind are removed.
  /// @param trouble gets why not all directories could be looked into, in words; empty when they could
  static std::vector<std::string> Sockets(std::string* trouble);
  /// Why a directory cannot be used, in words; empty when it can.
  static std::string TroubleWith(const std::string& directory);
  /// Connects to a socket; -1 when nobody listens there.
  static int Connect(const std::string& path);
  /// The end of the name of a socket that somebody listens at.
  static constexpr const char* kSuffix = ".sock";
};
