#include <trel/TCPE_ErrorText.h>

const char* TCPE_ErrorText(TCPE_CommErr error) noexcept {
  switch (error) {
  case eTCPE_CommErr_None:
    return "none";
  case eTCPE_CommErr_NotInitialized:
    return "engine not running";
  case eTCPE_CommErr_NotConnected:
    return "not connected";
  case eTCPE_CommErr_ConnectionLost:
    return "connection lost";
  case eTCPE_CommErr_TimedOut:
    return "timed out";
  case eTCPE_CommErr_NoHandler:
    return "nobody handles this command";
  case eTCPE_CommErr_UnknownCommand:
    return "unknown command";
  case eTCPE_CommErr_MalformedPayload:
    return "malformed payload";
  case eTCPE_CommErr_QueueFull:
    return "queue full";
  case eTCPE_CommErr_NotInThisNumbering:
    return "not in this numbering";
  case eTCPE_CommErr_NoIdentifier:
    return "no identifier";
  case eTCPE_CommErr_PayloadTooLong:
    return "payload too long";
  case eTCPE_CommErr_WrongThread:
    return "wrong thread";
  case eTCPE_CommErr_NotSendable:
    return "not sendable";
  case eTCPE_CommErr_NotAllowed:
    return "not allowed to connect";
  case eTCPE_CommErr_Full:
    return "no room for another system";
  case eTCPE_CommErr_OtherNumbering:
    return "other command numbering";
  case eTCPE_CommErr_Authentication:
    return "the shared secret is not proved";
  case eTCPE_CommErr_DuplicateAddress:
    return "a live system with this address is connected";
  case eTCPE_CommErr_AlreadyConnected:
    return "the other one of two connections survives";
  case eTCPE_CommErr_HandlerFailed:
    return "the handler failed";
  }
  return "unknown";
}

const char* TCPE_ErrorText(ETCPE_NetworkError error) noexcept {
  switch (error) {
  case eNetworkError_None:
    return "none";
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
    return "the shared secret is not proved";
  case eNetworkError_DuplicateAddress:
    return "a live system with this address is connected";
  case eNetworkError_PeerTooSlow:
    return "does not take what is sent";
  case eNetworkError_Flood:
    return "keeps the places for new connections taken";
  }
  return "unknown";
}

const char* TCPE_ErrorText(ETCPE_Status status) noexcept {
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
  }
  return "unknown";
}
