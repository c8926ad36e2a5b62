#include <trel/Trel_CommTask.h>

#include <trel/TCPE_CommManager.h>
#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_CommandDescription.h>
#include <trel/Trel_CorrelatedClockMgr.h>

namespace {

/// Besides 0 the error identifiers of both numberings: an object whose last reply was invalid carries one, and the
/// numbering may have changed since.
bool IsTypeOfNoClass(TCPE_eCmd type) { return -1 <= type && type <= 1; }

} // namespace

Trel_CommTask::Trel_CommTask(std::uint16_t communicationPort, std::uint16_t discoveryPort, TCPE_System* localSystem,
                             std::uint16_t maxSatellites, TCPE_CommManager* manager)
    : TCPE_CommTask(communicationPort, discoveryPort, localSystem, maxSatellites, Trel_Command::GetMaxCommandSize(),
                    Trel_Command::GetCompatibleID(-1), manager) {}

Trel_CommTask::~Trel_CommTask() = default;

void Trel_CommTask::DoCommand(TCPE_Command* command) { Trel_Command::DoIt(command); }

void Trel_CommTask::WriteCommandHeader(TCPE_Command* command, char** cursor) {
  command->WriteHeader(GetCurrentProtocolMajorVersion(), GetCurrentProtocolMinorVersion(), cursor);
}

TCPE_Command* Trel_CommTask::ConstructCommand(std::int32_t commandType, void* block) {
  return Trel_Command::Construct(static_cast<Trel_eCmd>(commandType), block);
}

std::int32_t Trel_CommTask::GetCompatibleID(std::int32_t type) { return Trel_Command::GetCompatibleID(type); }

std::int32_t Trel_CommTask::GetTCPECommandType(std::int32_t identifier) {
  return Trel_Command::GetTCPECommandType(identifier);
}

bool Trel_CommTask::HandleTimingCommand(TCPE_Command* command) {
  return Trel_CorrelatedClockMgr::HandleTimingCommand(dynamic_cast<Trel_Command*>(command));
}

void Trel_CommTask::ValidateCommand(TCPE_eCmd* commandID) { Trel_Command::ValidateCommand(commandID); }

std::uint8_t Trel_CommTask::GetCurrentProtocolMajorVersion() { return Trel_Command::GetCurrentProtocolMajorVersion(); }

std::uint8_t Trel_CommTask::GetCurrentProtocolMinorVersion() { return Trel_Command::GetCurrentProtocolMinorVersion(); }

bool Trel_CommTask::HasHandler(const TCPE_Command* command) { return Trel_Command::HasHandler(command); }

TCPE_CommErr Trel_CommTask::PrepareToSend(TCPE_Command* command) {
  const bool isCurrentNumbering = TCPE_CommManager::GetSupportsMarlo11();
  if (isCurrentNumbering && !IsTypeOfNoClass(command->GetCommandType())) {
    return eTCPE_CommErr_None;
  }
  const auto* linkCommand = dynamic_cast<const Trel_Command*>(command);
  if (linkCommand == nullptr) {
    return TCPE_CommTask::PrepareToSend(command);
  }
  const Trel_CommandDescription* description = linkCommand->GetDescription();
  if (description != nullptr && description->traits.currentOnly && !isCurrentNumbering) {
    return eTCPE_CommErr_NotInThisNumbering;
  }
  if (IsTypeOfNoClass(command->GetCommandType())) {
    if (description == nullptr) {
      return eTCPE_CommErr_NoIdentifier;
    }
    command->SetCommandType(isCurrentNumbering ? description->identifiers.current : description->identifiers.legacy);
  }
  return eTCPE_CommErr_None;
}

void Trel_CommTask::FillConnectCommand(TCPE_Command* command, const TCPE_System& localSystem) {
  if (auto* connect = dynamic_cast<Trel_Cmd_Connect*>(command)) {
    connect->SetUniqueIDFrom(localSystem.GetUniqueID());
    connect->SetUniqueIDTo(0);
    connect->SetSatelliteName(localSystem.GetSystemName());
    connect->SetHostname(localSystem.GetHostName());
  }
}

std::string Trel_CommTask::GetConnectingSystemName(const TCPE_Command* command) {
  const auto* connect = dynamic_cast<const Trel_Cmd_Connect*>(command);
  return connect != nullptr ? connect->GetSatelliteName() : std::string();
}
