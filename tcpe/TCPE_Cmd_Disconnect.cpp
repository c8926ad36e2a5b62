#include <trel/TCPE_Cmd_Disconnect.h>

TCPE_Cmd_Disconnect::TCPE_Cmd_Disconnect(TCPE_System* localSystem, TCPE_eCmd type)
    : TCPE_Command(localSystem, type, 0) {}

const char* TCPE_Cmd_Disconnect::GetCommandName() const { return "Disconnect"; }

std::int32_t TCPE_Cmd_Disconnect::GetMaxNumberCommands() const { return 0; }
