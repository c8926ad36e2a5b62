#include "tools/trel/doctor/Survey.h"

#include <trel/Trel_CommManager.h>

namespace {

void TakeRole(ETCPE_SystemType role) {
  Trel_CommManager::SetSystemType(role);
  Trel_CommManager::SetIsSatellite(role == eTCPE_SystemType_Satellite);
}

} // namespace

Survey::Systems Survey::Masters() {
  TakeRole(eTCPE_SystemType_Satellite); // only a satellite may ask for masters
  Systems systems;
  Trel_CommManager::GetMasterSystemsList(&systems);
  // As a satellite it would be found by masters that look for some.
  TakeRole(eTCPE_SystemType_None);
  return systems;
}

Survey::Systems Survey::Satellites() {
  TakeRole(eTCPE_SystemType_None);
  Systems systems;
  Trel_CommManager::GetSatelliteList(&systems);
  return systems;
}
