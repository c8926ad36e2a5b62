#include "tools/trel/common/Texts.h"

#include <cstddef>

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
