#pragma once

#include <trel/TCPE_CommTask.h>

/// Gives the engine the link's command model: numbering, factory, handlers, protocol version. For the threads that call
/// it see TCPE_CommTask. It keeps no state of its own and needs no initialised engine.
class TREL_EXPORT Trel_CommTask : public TCPE_CommTask {
public:
  Trel_CommTask(std::uint16_t communicationPort, std::uint16_t discoveryPort, TCPE_System* localSystem,
                std::uint16_t maxSatellites, TCPE_CommManager* manager);
  ~Trel_CommTask() override;

  /// Calls the handler that the host registered for the command's type, if there is one.
  void DoCommand(TCPE_Command* command) override;
  void WriteCommandHeader(TCPE_Command* command, char** cursor) override;
  TCPE_Command* ConstructCommand(std::int32_t commandType, void* block) override;
  std::int32_t GetCompatibleID(std::int32_t type) override;
  std::int32_t GetTCPECommandType(std::int32_t identifier) override;
  bool HandleTimingCommand(TCPE_Command* command) override;
  void ValidateCommand(TCPE_eCmd* commandID) override;
  std::uint8_t GetCurrentProtocolMajorVersion() override;
  std::uint8_t GetCurrentProtocolMinorVersion() override;

  bool HasHandler(const TCPE_Command* command) override;
  /// Refuses link commands that the numbering in force does not have: in the legacy one their numbers mean others.
  TCPE_CommErr PrepareToSend(TCPE_Command* command) override;
  /// Fills a Trel_Cmd_Connect; leaves any other command alone.
  void FillConnectCommand(TCPE_Command* command, const TCPE_System& localSystem) override;
  std::string GetConnectingSystemName(const TCPE_Command* command) override;
};
