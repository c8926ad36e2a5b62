#include "Texts.h"

#include <algorithm>
#include <cstddef>

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

std::string Printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(),
      [](char character) {
        constexpr char kDelete = 0x7f;
        return (static_cast<unsigned char>(character) < ' ' && character != '\n') || character == kDelete;
      },
      '?');
  // Terminals obey the control characters from U+0080 on, too.
  constexpr char kLead = '\xc2';
  constexpr unsigned char kFirstPrintable = 0xa0;
  for (std::size_t index = 0; index + 1 < text.size(); ++index) {
    if (text[index] == kLead && static_cast<unsigned char>(text[index + 1]) < kFirstPrintable) {
      text.replace(index, 2, "??");
    }
  }
  return text;
}
