#include <trel/Trel_Init.h>

#include <trel/SPSStartupOption.h>
#include <trel/Sys_Clock.h>
#include <trel/Sys_Init.h>
#include <trel/Sys_Socket.h>
#include <trel/TCPE_CommManager.h>

#include "link/clock/Trel_Trace.h"

#include <mutex>

void Trel_Init::Init() {
  static std::once_flag once;
  std::call_once(once, [] {
    PlatformSupport_Initialize(true);
    Sys_Init::PlatformInit();
    Sys_Socket::Initialize();
    Sys_Clock::Init();
    TCPE_CommManager::ReadNumberingOption();
    Trel_Trace::BindInstalled();
  });
}
