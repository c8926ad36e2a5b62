#include "Texts.h"

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
  default:
    return "unknown status";
  }
}
