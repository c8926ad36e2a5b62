#pragma once

#include <trel/TCPE_Command.h>

/// The engine's own disconnect command: sent to a connected system, it ends the connection.
///
/// The engine knows it by its class and gives it the type of the numbering in force, whatever it was built with.
class TREL_EXPORT TCPE_Cmd_Disconnect final : public TCPE_Command {
public:
  TCPE_Cmd_Disconnect(TCPE_System* localSystem, TCPE_eCmd type);

  const char* GetCommandName() const override;
  std::int32_t GetMaxNumberCommands() const override;
};
