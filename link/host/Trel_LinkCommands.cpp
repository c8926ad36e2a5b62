#include "link/host/Trel_LinkCommands.h"

#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_Cmd_Control.h>
#include <trel/Trel_Cmd_Identity.h>
#include <trel/Trel_CommManager.h>

namespace {

bool Send(Trel_Command&& command, std::uint32_t address) {
  command.SetIPAddressTo(address);
  Trel_CommManager::SendCommand(&command);
  return command.GetError() == eTCPE_CommErr_None;
}

} // namespace

void Trel_LinkCommands::SetOrderNumber(std::uint32_t address, const Trel_System& system) {
  Trel_Cmd_SetOrderNumber command(system.GetOrderNumber(), system.GetIPAddress());
  command.SetUniqueID(system.GetUniqueID());
  Send(std::move(command), address);
}

void Trel_LinkCommands::ListSystems(std::uint32_t address, const std::vector<Trel_System>& systems) {
  Trel_Cmd_ListSystems command;
  command.SetSystems(systems);
  Send(std::move(command), address);
}

void Trel_LinkCommands::ConnectTo(std::uint32_t address, const Trel_System& system) {
  Trel_Cmd_ConnectTo command;
  command.SetConnectToIPAddress(system.GetIPAddress());
  command.SetConnectToPort(system.GetPort());
  command.SetUniqueSystemID(system.GetUniqueID());
  command.SetSystemName(system.GetSystemName());
  command.SetHostname(system.GetHostName());
  command.SetSystemType(system.GetSystemType());
  command.SetMajorVersion(system.GetMajorVersion());
  command.SetMinorVersion(system.GetMinorVersion());
  Send(std::move(command), address);
}

void Trel_LinkCommands::DisconnectFrom(std::uint32_t address, const Trel_System& system) {
  Trel_Cmd_DisconnectFrom command;
  command.SetUniqueSystemID(system.GetUniqueID());
  command.SetDisconnectFromIPAddress(system.GetIPAddress());
  Send(std::move(command), address);
}

void Trel_LinkCommands::DoConnectTo(std::uint32_t address, std::int32_t uniqueID) {
  const Trel_System local = LocalSystem();
  Trel_Cmd_DoConnectTo command;
  command.SetSystemName(local.GetSystemName());
  command.SetHostname(local.GetHostName());
  command.SetUniqueSystemIDFrom(local.GetUniqueID());
  command.SetUniqueSystemIDTo(uniqueID);
  Send(std::move(command), address);
}

void Trel_LinkCommands::DoConnectToComplete(std::uint32_t address, bool success) {
  Trel_Cmd_DoConnectToComplete command;
  command.SetSuccess(success);
  Send(std::move(command), address);
}

void Trel_LinkCommands::AllConnectionsComplete(std::uint32_t address) {
  Send(Trel_Cmd_AllConnectionsComplete(), address);
}

bool Trel_LinkCommands::ConnectComplete(std::uint32_t address) { return Send(Trel_Cmd_ConnectComplete(), address); }

bool Trel_LinkCommands::SystemInControl(std::uint32_t address, const Trel_System& holder) {
  Trel_Cmd_SystemInControl command;
  command.SetUniqueID(holder.GetUniqueID());
  command.SetSystemInControl(holder.GetIPAddress());
  return Send(std::move(command), address);
}

Trel_LinkCommands::Reply Trel_LinkCommands::RequestControl(std::uint32_t address) {
  Trel_Cmd_RequestControl command;
  command.SetIPAddressTo(address);
  Trel_CommManager::SendCommand(&command);
  if (command.GetError() != eTCPE_CommErr_None) {
    return Reply::none;
  }
  return command.GetHasControl() ? Reply::yes : Reply::no;
}

Trel_System Trel_LinkCommands::LocalSystem() {
  Trel_System system;
  system.SetSystemName(Trel_CommManager::GetSystemName());
  system.SetHostName(Trel_CommManager::GetLocalSystem()->GetHostName()); // set once, by Initialize
  system.SetIPAddress(Trel_CommManager::GetAdaptorIPAddress());
  system.SetPort(static_cast<std::uint16_t>(Trel_CommManager::GetCommunicationPort()));
  system.SetSystemType(Trel_CommManager::GetSystemType());
  system.SetUniqueID(Trel_CommManager::GetUniqueID());
  system.SetMajorVersion(Trel_Command::GetCurrentProtocolMajorVersion());
  system.SetMinorVersion(Trel_Command::GetCurrentProtocolMinorVersion());
  return system;
}
