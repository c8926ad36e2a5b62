#include <trel/TCPE_CommManager.h>
#include <trel/TCPE_CommTask.h>
#include <trel/TCPE_Command.h>

TCPE_CommTask::TCPE_CommTask(std::uint16_t communicationPort, std::uint16_t discoveryPort, TCPE_System* localSystem,
                             std::uint16_t maxSatellites, std::uint32_t maxCommandSize, std::int32_t errorCommandID,
                             TCPE_CommManager* manager)
    : mCommManager(manager), mLocalSystem(localSystem), mMaxCommandSize(maxCommandSize),
      mErrorCommandID(errorCommandID), mMaxSatellites(maxSatellites), mCommunicationPort(communicationPort),
      mDiscoveryPort(discoveryPort) {}

TCPE_CommTask::~TCPE_CommTask() = default;

void TCPE_CommTask::DoCommand(TCPE_Command* /*command*/) {}

void TCPE_CommTask::WriteCommandHeader(TCPE_Command* command, char** cursor) {
  command->WriteHeader(GetCurrentProtocolMajorVersion(), GetCurrentProtocolMinorVersion(), cursor);
}

TCPE_Command* TCPE_CommTask::ConstructCommand(std::int32_t /*commandType*/, void* /*block*/) { return nullptr; }

std::int32_t TCPE_CommTask::GetCompatibleID(std::int32_t type) { return type; }

std::int32_t TCPE_CommTask::GetTCPECommandType(std::int32_t identifier) { return identifier; }

bool TCPE_CommTask::HandleTimingCommand(TCPE_Command* /*command*/) { return false; }

void TCPE_CommTask::ValidateCommand(TCPE_eCmd* /*commandID*/) {}

std::uint8_t TCPE_CommTask::GetCurrentProtocolMajorVersion() { return 0; }

std::uint8_t TCPE_CommTask::GetCurrentProtocolMinorVersion() { return 0; }

bool TCPE_CommTask::HasHandler(const TCPE_Command* /*command*/) { return true; }

TCPE_CommErr TCPE_CommTask::PrepareToSend(TCPE_Command* command) {
  const TCPE_eCmd type = command->GetCommandType();
  return type != TCPE_Command::GetInvalidCommandID() && type != GetErrorCommandID() ? eTCPE_CommErr_None
                                                                                    : eTCPE_CommErr_NoIdentifier;
}

void TCPE_CommTask::FillConnectCommand(TCPE_Command* /*command*/, const TCPE_System& /*localSystem*/) {}

std::string TCPE_CommTask::GetConnectingSystemName(const TCPE_Command* /*command*/) { return {}; }

std::set<std::uint32_t> TCPE_CommTask::GetConnectedAddresses() const { return mCommManager->GetConnectedAddresses(); }
