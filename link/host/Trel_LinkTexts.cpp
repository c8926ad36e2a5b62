#include "link/host/Trel_LinkTexts.h"

#include <trel/Sys_Socket.h>

#include <cstdio>

std::string Trel_LinkTexts::Name(const Trel_System& system) {
  const std::string address = Name(system.GetIPAddress());
  return *system.GetSystemName() != '\0' ? system.GetSystemName() + (" at " + address) : address;
}

std::string Trel_LinkTexts::Name(std::uint32_t address) { return Sys_Socket::DecodeIPAddress(address); }

std::string Trel_LinkTexts::Harmless(std::string text) {
  const auto byte = [&text](std::size_t index) { return static_cast<unsigned char>(text[index]); };
  for (std::size_t index = 0; index < text.size(); ++index) {
    constexpr unsigned kDelete = 0x7f;
    constexpr unsigned kLeadOfC1 = 0xc2; // with a byte from 80 to 9f behind it, a control character in UTF-8
    constexpr unsigned kLastOfC1 = 0x9f;
    const bool isC1 = index > 0 && byte(index - 1) == kLeadOfC1 && byte(index) > kDelete && byte(index) <= kLastOfC1;
    if (byte(index) < ' ' || byte(index) == kDelete || isC1) {
      text[index] = '?';
    }
  }
  return text;
}

std::string Trel_LinkTexts::Seconds(std::int64_t microseconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f s", static_cast<double>(microseconds) / 1e6);
  return text;
}

std::string Trel_LinkTexts::NetworkError(ETCPE_NetworkError error, const std::string& who) {
  switch (error) {
  case eNetworkError_ConnectionLost:
    return "The connection to " + who + " is lost. Check that it is running, and the cable.";
  case eNetworkError_MalformedData:
    return who + " sent something that is not understood. Check that only link software uses this port.";
  case eNetworkError_NotAllowed:
    return who + " does not allow this system to connect. Allow it there.";
  case eNetworkError_Full:
    return who + " has no room for another system. Unlink one, or allow more there.";
  case eNetworkError_OtherNumbering:
    return who + " uses the other version of the protocol. Set \"SupportsMarlo11\" alike on both (trel host: "
                 "--legacy).";
  case eNetworkError_Authentication:
    return who + " and this system do not have the same shared secret. Give both the same one.";
  case eNetworkError_DuplicateAddress:
    return who +
           " is linked already with another system that has this one's address. Give one of them another address.";
  case eNetworkError_PeerTooSlow:
    return who + " was disconnected, because it did not take what was sent to it. Check whether it is overloaded.";
  case eNetworkError_None:
    break;
  }
  return "The connection to " + who + " has ended.";
}
