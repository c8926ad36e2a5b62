#include <trel/Cmn_NumberToText.h>
#include <trel/Sys_Socket.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <unistd.h>

namespace {

std::uint32_t HostOrderAddress(const sockaddr* socketAddress) {
  sockaddr_in address = {};
  std::memcpy(&address, socketAddress, sizeof address);
  return ntohl(address.sin_addr.s_addr);
}

Sys_Adaptor MakeAdaptor(const ifaddrs& entry) {
  Sys_Adaptor adaptor;
  adaptor.name = entry.ifa_name;
  adaptor.address = HostOrderAddress(entry.ifa_addr);
  adaptor.netmask = entry.ifa_netmask != nullptr ? HostOrderAddress(entry.ifa_netmask) : ~std::uint32_t{0};
  adaptor.isUp = (entry.ifa_flags & IFF_UP) != 0;
  adaptor.isLoopback = (entry.ifa_flags & IFF_LOOPBACK) != 0;
  const bool hasBroadcastAddress = ~adaptor.netmask > 1; // networks of one or two addresses have none
  // The loopback adaptor does deliver directed broadcasts, though it does not say so.
  adaptor.canBroadcast = hasBroadcastAddress && (adaptor.isLoopback || (entry.ifa_flags & IFF_BROADCAST) != 0);
  // Calculated, because the adaptor's own entry may be empty or set to something else.
  adaptor.broadcast = adaptor.canBroadcast ? adaptor.address | ~adaptor.netmask : 0;
  return adaptor;
}

} // namespace

// Nothing to prepare where sockets are part of the system.
void Sys_Socket::Initialize() {}

std::string Sys_Socket::DecodeIPAddress(std::uint32_t address) {
  std::string text;
  for (const unsigned shift : {24U, 16U, 8U, 0U}) {
    text += Cmn_UInt32ToString((address >> shift) & 0xffU);
    text += shift != 0 ? "." : "";
  }
  return text;
}

bool Sys_Socket::EncodeIPAddress(const char* text, std::uint32_t* address) noexcept {
  std::string_view rest = text != nullptr ? text : "";
  std::uint32_t result = 0;
  for (int octet = 0; octet < 4; ++octet) {
    if (octet > 0) {
      if (rest.empty() || rest.front() != '.') {
        return false;
      }
      rest.remove_prefix(1);
    }
    std::uint8_t number = 0;
    const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), number);
    const auto length = static_cast<std::size_t>(end - rest.data());
    if (error != std::errc() || (length > 1 && rest.front() == '0')) {
      return false;
    }
    rest.remove_prefix(length);
    result = (result << 8U) | number;
  }
  if (!rest.empty()) {
    return false;
  }
  *address = result;
  return true;
}

std::string Sys_Socket::GetHostName() {
  std::array<char, 256> name = {}; // one more than the longest name, so that it always ends with a zero
  return gethostname(name.data(), name.size() - 1) == 0 ? std::string(name.data()) : std::string();
}

std::vector<Sys_Adaptor> Sys_Socket::GetAdaptors() {
  std::vector<Sys_Adaptor> adaptors;
  ReadAdaptors(&adaptors);
  return adaptors;
}

bool Sys_Socket::ReadAdaptors(std::vector<Sys_Adaptor>* adaptors) {
  ifaddrs* entries = nullptr;
  if (getifaddrs(&entries) != 0) {
    return false;
  }
  adaptors->clear();
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(entries, &freeifaddrs);
  for (const ifaddrs* entry = entries; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET) {
      adaptors->push_back(MakeAdaptor(*entry));
    }
  }
  return true;
}

bool Sys_Socket::FindAdaptorOf(std::uint32_t address, Sys_Adaptor* adaptor) {
  const auto adaptors = GetAdaptors();
  const auto found = std::find_if(adaptors.begin(), adaptors.end(),
                                  [address](const Sys_Adaptor& candidate) { return candidate.Has(address); });
  if (found == adaptors.end()) {
    return false;
  }
  *adaptor = *found;
  return true;
}
