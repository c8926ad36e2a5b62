#include "tools/trel/doctor/PortOwner.h"

#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include <arpa/inet.h>

namespace {

namespace fs = std::filesystem;

constexpr int kHexadecimal = 16;

/// The table of sockets that Linux shows: the inode of one that has the port, at the address or at all of them.
/// @param state only sockets in this state, in hexadecimal digits; empty: any
std::string InodeOf(const char* table, const std::string& state, std::uint32_t address, std::uint16_t port) {
  std::ifstream file(table);
  std::string line;
  std::getline(file, line); // headings
  while (std::getline(file, line)) {
    std::istringstream fields(line);
    std::string slot;
    std::string local;
    std::string remote;
    std::string socketState;
    std::string skipped;
    std::string inode;
    fields >> slot >> local >> remote >> socketState >> skipped >> skipped >> skipped >> skipped >> skipped >> inode;
    const std::size_t colon = local.find(':');
    if (colon == std::string::npos || (!state.empty() && socketState != state)) {
      continue;
    }
    std::uint32_t localAddress = 0; // in network order, read as a number of this machine
    std::uint16_t localPort = 0;
    std::from_chars(local.data(), local.data() + colon, localAddress, kHexadecimal);
    std::from_chars(local.data() + colon + 1, local.data() + local.size(), localPort, kHexadecimal);
    if (localPort == port && (localAddress == 0 || ntohl(localAddress) == address)) {
      return inode;
    }
  }
  return {};
}

PortOwner OwnerOf(const std::string& inode) {
  const std::string wanted = "socket:[" + inode + "]";
  std::error_code error;
  for (const fs::directory_entry& process : fs::directory_iterator("/proc", error)) {
    const std::string id = process.path().filename();
    if (id.find_first_not_of("0123456789") != std::string::npos) {
      continue;
    }
    std::error_code denied; // other users' processes do not show their files
    for (const fs::directory_entry& file : fs::directory_iterator(process.path() / "fd", denied)) {
      if (fs::read_symlink(file.path(), denied) == wanted) {
        PortOwner owner{.process = std::stoi(id), .name = {}};
        std::ifstream(process.path() / "comm") >> owner.name;
        return owner;
      }
    }
  }
  return {};
}

} // namespace

std::string PortOwner::Text() const {
  return process != 0 ? name + " (process " + std::to_string(process) + ")" : "another program";
}

std::optional<PortOwner> PortOwner::OfTCP(std::uint32_t address, std::uint16_t port) {
  constexpr const char* kListening = "0A";
  const std::string inode = InodeOf("/proc/net/tcp", kListening, address, port);
  return inode.empty() ? std::nullopt : std::make_optional(OwnerOf(inode));
}

std::optional<PortOwner> PortOwner::OfUDP(std::uint32_t address, std::uint16_t port) {
  const std::string inode = InodeOf("/proc/net/udp", {}, address, port);
  return inode.empty() ? std::nullopt : std::make_optional(OwnerOf(inode));
}
