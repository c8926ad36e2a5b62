#include "Texts.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace {

bool IsContinuation(unsigned char byte) { return (byte & 0xc0U) == 0x80U; }

/// Bytes of the UTF-8 character that a text begins with; 0 when it is no such character, or one that controls.
std::size_t CharacterSize(std::string_view text) {
  const auto byte = [text](std::size_t index) {
    return index < text.size() ? static_cast<unsigned char>(text[index]) : static_cast<unsigned char>(0);
  };
  const unsigned char first = byte(0);
  constexpr unsigned char kDelete = 0x7f;
  if (first <= kDelete) {
    return first < ' ' || first == kDelete ? 0 : 1;
  }
  // By the first byte; those left out would be overlong, or beyond the last character there is.
  const std::size_t size = first < 0xc2 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : first < 0xf5 ? 4 : 0;
  for (std::size_t index = 1; index < size; ++index) {
    if (!IsContinuation(byte(index))) {
      return 0;
    }
  }
  const bool isControl = first == 0xc2 && byte(1) < 0xa0;
  return isControl ? 0 : size;
}

} // namespace

const char* NetworkErrorText(ETCPE_NetworkError error) {
  switch (error) {
  case eNetworkError_None:
    return "no error";
  case eNetworkError_ConnectionLost:
    return "connection lost";
  case eNetworkError_MalformedData:
    return "malformed data";
  case eNetworkError_NotAllowed:
    return "not allowed to connect";
  case eNetworkError_Full:
    return "no room for another system";
  case eNetworkError_OtherNumbering:
    return "other command numbering";
  case eNetworkError_Authentication:
    return "authentication failed";
  case eNetworkError_DuplicateAddress:
    return "another system with this address is linked";
  case eNetworkError_PeerTooSlow:
    return "does not take what is sent";
  }
  return "unknown error";
}

const char* StatusText(std::int32_t status) {
  switch (status) {
  case eTCPE_Status_Success:
    return "success";
  case eTCPE_Status_AlreadyInitialized:
    return "initialised already";
  case eTCPE_Status_AddressNotLocal:
    return "the address is none of this machine";
  case eTCPE_Status_NoAdaptor:
    return "no usable network adaptor";
  case eTCPE_Status_PortInUse:
    return "the port is in use";
  case eTCPE_Status_NoCommTask:
    return "no communication task";
  case eTCPE_Status_SystemError:
    return "the operating system refused a socket or a thread";
  case eTCPE_Status_DiscoveryPortInUse:
    return "the discovery port is in use";
  case eTCPE_Status_SharedSecret:
    return "the file of the shared secret cannot be used";
  default:
    return "unknown status";
  }
}

const char* RoleText(ETCPE_SystemType type) {
  switch (type) {
  case eTCPE_SystemType_None:
    return "none";
  case eTCPE_SystemType_Master:
    return "master";
  case eTCPE_SystemType_Satellite:
    return "satellite";
  default:
    return "other";
  }
}

const char* TransportText(ETrel_State state) {
  switch (state) {
  case eTrel_State_Stopping:
    return "stopping";
  case eTrel_State_Stop:
    return "stopped";
  case eTrel_State_Priming:
    return "priming";
  case eTrel_State_PrimeCompleted:
    return "primed";
  case eTrel_State_ClockSyncing:
    return "syncing clock";
  case eTrel_State_ClocksSynced:
    return "clock synced";
  case eTrel_State_Play:
    return "playing";
  case eTrel_State_FFRew:
    return "winding";
  default:
    return "unknown";
  }
}

const char* LinkStateText(ETrel_LinkState state) {
  switch (state) {
  case eTrel_LinkState_NotLinkable:
    return "cannot be linked";
  case eTrel_LinkState_Linkable:
    return "off";
  case eTrel_LinkState_LinkedNotPlayable:
    return "on, clock not locked";
  case eTrel_LinkState_LinkedPlayable:
    return "on";
  default:
    return "unknown";
  }
}

const char* VideoReferenceText(ETrel_VideoReferenceFormat format) {
  const auto names = Trel_DisplayStrings(format);
  const auto index = static_cast<std::size_t>(format);
  const bool isFormat = format > eTrel_VideoReferenceFormat_Undefined && index < names.size();
  return isFormat && names[index] != nullptr ? names[index] : "none";
}

std::string Printable(const std::string& text) {
  std::string printable;
  for (std::size_t index = 0; index < text.size();) {
    const std::size_t size = CharacterSize(std::string_view(text).substr(index));
    printable += size == 0 ? "?" : text.substr(index, size);
    index += std::max<std::size_t>(size, 1);
  }
  return printable;
}

std::string PrintableLines(const std::string& text) {
  std::string printable;
  std::size_t begin = 0;
  for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', begin)) {
    printable += Printable(text.substr(begin, end - begin)) + '\n';
    begin = end + 1;
  }
  return printable + Printable(text.substr(begin));
}
