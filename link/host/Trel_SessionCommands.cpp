#include "link/host/Trel_SessionCommands.h"

#include <trel/Trel_CommManager.h>

#include <algorithm>
#include <iterator>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace {

using Message = Trel_SessionMessage;

Trel_Cmd_SetMasterSystem Make(const Message::SetMasterSystem& message) {
  return Trel_Cmd_SetMasterSystem(message.address);
}

Trel_Cmd_SetOrderNumber Make(const Message::SetOrderNumber& message) {
  Trel_Cmd_SetOrderNumber command(message.place, message.address);
  command.SetUniqueID(message.uniqueID);
  return command;
}

Trel_Cmd_ListSystems Make(const Message::ListSystems& message) {
  std::vector<Trel_System> systems;
  std::transform(message.systems.begin(), message.systems.end(), std::back_inserter(systems),
                 &Trel_SessionCommands::ToSystem);
  Trel_Cmd_ListSystems command;
  command.SetSystems(systems);
  return command;
}

Trel_Cmd_ConnectTo Make(const Message::ConnectTo& message) {
  Trel_Cmd_ConnectTo command;
  command.SetConnectToIPAddress(message.system.address);
  command.SetConnectToPort(message.system.port);
  command.SetUniqueSystemID(message.system.uniqueID);
  command.SetSystemName(message.system.name.c_str());
  command.SetHostname(message.system.hostName.c_str());
  command.SetSystemType(message.system.type);
  command.SetMajorVersion(message.system.majorVersion);
  command.SetMinorVersion(message.system.minorVersion);
  return command;
}

Trel_Cmd_DisconnectFrom Make(const Message::DisconnectFrom& message) {
  Trel_Cmd_DisconnectFrom command;
  command.SetUniqueSystemID(message.uniqueID);
  command.SetDisconnectFromIPAddress(message.address);
  return command;
}

Trel_Cmd_DoConnectTo Make(const Message::DoConnectTo& message) {
  const Trel_SessionSystem local = Trel_SessionCommands::LocalSystem();
  Trel_Cmd_DoConnectTo command;
  command.SetSystemName(local.name.c_str());
  command.SetHostname(local.hostName.c_str());
  command.SetUniqueSystemIDFrom(local.uniqueID);
  command.SetUniqueSystemIDTo(message.uniqueIDTo);
  return command;
}

Trel_Cmd_DoConnectToComplete Make(const Message::DoConnectToComplete& message) {
  Trel_Cmd_DoConnectToComplete command;
  command.SetSuccess(message.success);
  return command;
}

Trel_Cmd_ConnectToComplete Make(const Message::ConnectToComplete& message) {
  Trel_Cmd_ConnectToComplete command;
  command.SetConnectionIDIP(message.address);
  command.SetConnectionIDPort(message.port);
  command.SetSuccess(message.success);
  return command;
}

Trel_Cmd_ConnectionFailed Make(const Message::ConnectionFailed& message) {
  Trel_Cmd_ConnectionFailed command;
  command.SetFailedConnectionIPAddress(message.address);
  return command;
}

Trel_Cmd_SetSystemName Make(const Message::SetSystemName& message) {
  Trel_Cmd_SetSystemName command;
  command.SetSystemName(message.name.c_str());
  return command;
}

Trel_Cmd_SystemInControl Make(const Message::SystemInControl& message) {
  Trel_Cmd_SystemInControl command;
  command.SetUniqueID(message.uniqueID);
  command.SetSystemInControl(message.address);
  return command;
}

Trel_Cmd_AllConnectionsComplete Make(const Message::AllConnectionsComplete& /*message*/) { return {}; }
Trel_Cmd_ConnectComplete Make(const Message::ConnectComplete& /*message*/) { return {}; }
Trel_Cmd_RequestControl Make(const Message::RequestControl& /*message*/) { return {}; }

Trel_Cmd_Prime Make(const Message::Prime& message) {
  const auto [in, out] = message.range;
  return {in, in, out, out, in, Trel_SessionCommands::kPlaySpeed};
}

Trel_Cmd_StartPlayback Make(const Message::StartPlayback& message) {
  return Trel_Cmd_StartPlayback(message.runningTime);
}

Trel_Cmd_ReportPlayStartData Make(const Message::ReportPlayStartData& message) {
  return {message.runningTime, message.runningTime, message.runningTime};
}

Trel_Cmd_SendState Make(const Message::SendState& message) { return Trel_Cmd_SendState(message.transport); }

Trel_Cmd_ClockLockState Make(const Message::ClockLockState& message) {
  Trel_Cmd_ClockLockState command;
  command.SetClockLocked(message.isOn);
  return command;
}

Trel_Cmd_UpdateLinkState Make(const Message::UpdateLinkState& message) {
  Trel_Cmd_UpdateLinkState command;
  command.SetLinkState(message.link);
  return command;
}

Trel_Cmd_SetCurrentSelection Make(const Message::SetCurrentSelection& message) {
  const auto [in, out] = message.range;
  return {in, in, out, out, in, false, false, Trel_Cmd_SetCurrentSelection::eUpdateVideoTo_Default};
}

Trel_Cmd_RequestGroupEnable Make(const Message::RequestGroupEnable& message) {
  Trel_Cmd_RequestGroupEnable command;
  command.SetGroup(message.group);
  command.SetEnable(message.isOn);
  return command;
}

Trel_Cmd_UpdateGroupEnable Make(const Message::UpdateGroupEnable& message) {
  Trel_Cmd_UpdateGroupEnable command;
  for (std::size_t group = 0; group < message.groups.size(); ++group) {
    command.SetEnable(group, message.groups.at(group));
  }
  return command;
}

Trel_Cmd_VideoReferenceFormat Make(const Message::VideoReferenceFormat& message) {
  Trel_Cmd_VideoReferenceFormat command;
  command.SetVideoReferenceFormat(message.format);
  return command;
}

Trel_Cmd_DialogOnScreen Make(const Message::DialogOnScreen& message) {
  Trel_Cmd_DialogOnScreen command(message.text.empty() ? eTrel_DialogType_None : eTrel_DialogType_Unknown);
  command.SetDialogMsg(message.text.c_str());
  return command;
}

Trel_Cmd_RequestLink Make(const Message::RequestLink& message) { return Trel_Cmd_RequestLink(message.isOn); }
Trel_Cmd_RequestOnline Make(const Message::RequestOnline& message) { return Trel_Cmd_RequestOnline(message.isOn); }
Trel_Cmd_TrackIsSoloed Make(const Message::TrackIsSoloed& message) { return Trel_Cmd_TrackIsSoloed(message.isOn); }
Trel_Cmd_SoloAllTracks Make(const Message::SoloAllTracks& message) { return Trel_Cmd_SoloAllTracks(message.isOn); }
Trel_Cmd_SetLoopPlay Make(const Message::SetLoopPlay& message) { return Trel_Cmd_SetLoopPlay(message.isOn); }
Trel_Cmd_UpdateOnlineState Make(const Message::UpdateOnlineState& message) {
  return Trel_Cmd_UpdateOnlineState(message.isOn);
}
Trel_Cmd_UpdateSystemIsRecording Make(const Message::UpdateSystemIsRecording& message) {
  return Trel_Cmd_UpdateSystemIsRecording(message.isOn);
}
Trel_Cmd_VideoReferenceAvailable Make(const Message::VideoReferenceAvailable& message) {
  return Trel_Cmd_VideoReferenceAvailable(message.isOn);
}

Trel_Cmd_StopPlayback Make(const Message::StopPlayback& /*message*/) { return {}; }
Trel_Cmd_GetStartDelay Make(const Message::GetStartDelay& /*message*/) { return {}; }
Trel_Cmd_OKDialog Make(const Message::OKDialog& /*message*/) { return {}; }
Trel_Cmd_CancelDialog Make(const Message::CancelDialog& /*message*/) { return {}; }

std::int64_t ValueOf(const Trel_Cmd_GetStartDelay& command) { return command.GetStartDelay(); }
std::int64_t ValueOf(const Trel_Command& /*command*/) { return 0; }

bool IsGranted(const Trel_Cmd_RequestControl& command) { return command.GetHasControl(); }
bool IsGranted(const Trel_Command& /*command*/) { return true; }

} // namespace

Trel_SessionCommands::Sent Trel_SessionCommands::Send(const Message::Any& message, std::uint32_t address) {
  return std::visit(
      [address](const auto& fields) {
        auto command = Make(fields);
        command.SetIPAddressTo(address);
        const TCPE_CommManager::NeverWaits neverWaits; // one peer must not hold up what concerns the others
        Trel_CommManager::SendCommand(&command);
        if (!command.IsSynchronous() || command.GetError() != eTCPE_CommErr_None) {
          return Sent();
        }
        return Sent{IsGranted(command) ? Message::Outcome::confirmed : Message::Outcome::refused, ValueOf(command)};
      },
      message);
}

void Trel_SessionCommands::SendToAll(const Message::Any& message, std::span<const std::uint32_t> addresses) {
  std::visit(
      [addresses](const auto& fields) {
        auto command = Make(fields);
        Trel_CommManager::SendCommandToAll(&command, addresses);
      },
      message);
}

bool Trel_SessionCommands::IsConfirmed(const Message::Any& message) {
  return std::visit(
      []<class Fields>(const Fields& /*fields*/) {
        return decltype(Make(std::declval<Fields>()))::kTraits.synchronous;
      },
      message);
}

Message::SetMasterSystem Trel_SessionCommands::Read(const Trel_Cmd_SetMasterSystem& command) {
  return {command.GetIPAddress()};
}

Message::SetOrderNumber Trel_SessionCommands::Read(const Trel_Cmd_SetOrderNumber& command) {
  return {command.GetOrderNumber(), command.GetIPAddress(), command.GetUniqueID()};
}

Message::ListSystems Trel_SessionCommands::Read(const Trel_Cmd_ListSystems& command) {
  Message::ListSystems message;
  std::transform(command.GetSystems().begin(), command.GetSystems().end(), std::back_inserter(message.systems),
                 &FromSystem);
  return message;
}

Message::ConnectTo Trel_SessionCommands::Read(const Trel_Cmd_ConnectTo& command) {
  return {{.address = command.GetConnectToIPAddress(),
           .port = command.GetConnectToPort(),
           .uniqueID = command.GetUniqueSystemID(),
           .type = command.GetSystemType(),
           .name = command.GetSystemName(),
           .hostName = command.GetHostname(),
           .majorVersion = command.GetMajorVersion(),
           .minorVersion = command.GetMinorVersion()}};
}

Message::DisconnectFrom Trel_SessionCommands::Read(const Trel_Cmd_DisconnectFrom& command) {
  return {command.GetDisconnectFromIPAddress(), command.GetUniqueSystemID()};
}

Message::DoConnectTo Trel_SessionCommands::Read(const Trel_Cmd_DoConnectTo& command) {
  return {command.GetUniqueSystemIDTo()};
}

Message::DoConnectToComplete Trel_SessionCommands::Read(const Trel_Cmd_DoConnectToComplete& command) {
  return {command.GetSuccess()};
}

Message::ConnectToComplete Trel_SessionCommands::Read(const Trel_Cmd_ConnectToComplete& command) {
  return {command.GetConnectionIDIP(), command.GetConnectionIDPort(), command.GetSuccess()};
}

Message::ConnectionFailed Trel_SessionCommands::Read(const Trel_Cmd_ConnectionFailed& command) {
  return {command.GetFailedConnectionIPAddress()};
}

Message::AllConnectionsComplete Trel_SessionCommands::Read(const Trel_Cmd_AllConnectionsComplete& /*command*/) {
  return {};
}

Message::SetSystemName Trel_SessionCommands::Read(const Trel_Cmd_SetSystemName& command) {
  return {command.GetSystemName()};
}

Message::ConnectComplete Trel_SessionCommands::Read(const Trel_Cmd_ConnectComplete& /*command*/) { return {}; }

Message::SystemInControl Trel_SessionCommands::Read(const Trel_Cmd_SystemInControl& command) {
  return {command.GetSystemInControl(), command.GetUniqueID()};
}

Message::Prime Trel_SessionCommands::Read(const Trel_Cmd_Prime& command) {
  return {{command.GetInPoint(), command.GetOutPoint()}};
}

Message::StartPlayback Trel_SessionCommands::Read(const Trel_Cmd_StartPlayback& command) {
  return {command.GetStartAtRunningTime()};
}

Message::StopPlayback Trel_SessionCommands::Read(const Trel_Cmd_StopPlayback& /*command*/) { return {}; }

Message::ReportPlayStartData Trel_SessionCommands::Read(const Trel_Cmd_ReportPlayStartData& command) {
  return {command.GetAudioPlayStartTimestamp()};
}

Message::SendState Trel_SessionCommands::Read(const Trel_Cmd_SendState& command) { return {command.GetState()}; }

Message::ClockLockState Trel_SessionCommands::Read(const Trel_Cmd_ClockLockState& command) {
  return {command.GetClockLocked()};
}

Message::UpdateLinkState Trel_SessionCommands::Read(const Trel_Cmd_UpdateLinkState& command) {
  return {command.GetLinkState()};
}

Message::RequestLink Trel_SessionCommands::Read(const Trel_Cmd_RequestLink& command) { return {command.GetLink()}; }

Message::UpdateOnlineState Trel_SessionCommands::Read(const Trel_Cmd_UpdateOnlineState& command) {
  return {command.GetOnline()};
}

Message::RequestOnline Trel_SessionCommands::Read(const Trel_Cmd_RequestOnline& command) {
  return {command.GetOnline()};
}

Message::UpdateSystemIsRecording Trel_SessionCommands::Read(const Trel_Cmd_UpdateSystemIsRecording& command) {
  return {command.GetSystemIsRecording()};
}

Message::TrackIsSoloed Trel_SessionCommands::Read(const Trel_Cmd_TrackIsSoloed& command) {
  return {command.GetTrackIsSoloed()};
}

Message::SoloAllTracks Trel_SessionCommands::Read(const Trel_Cmd_SoloAllTracks& command) { return {command.GetSolo()}; }

Message::SetLoopPlay Trel_SessionCommands::Read(const Trel_Cmd_SetLoopPlay& command) { return {command.GetLoopPlay()}; }

Message::SetCurrentSelection Trel_SessionCommands::Read(const Trel_Cmd_SetCurrentSelection& command) {
  return {{command.GetInTime(), command.GetOutTime()}};
}

Message::RequestGroupEnable Trel_SessionCommands::Read(const Trel_Cmd_RequestGroupEnable& command) {
  return {command.GetGroup(), command.GetEnable()};
}

Message::UpdateGroupEnable Trel_SessionCommands::Read(const Trel_Cmd_UpdateGroupEnable& command) {
  Message::UpdateGroupEnable message;
  for (std::size_t group = 0; group < message.groups.size(); ++group) {
    message.groups.at(group) = command.GetEnable(group);
  }
  return message;
}

Message::VideoReferenceAvailable Trel_SessionCommands::Read(const Trel_Cmd_VideoReferenceAvailable& command) {
  return {command.GetVideoRefAvailable()};
}

Message::VideoReferenceFormat Trel_SessionCommands::Read(const Trel_Cmd_VideoReferenceFormat& command) {
  return {command.GetVideoReferenceFormat()};
}

Message::DialogOnScreen Trel_SessionCommands::Read(const Trel_Cmd_DialogOnScreen& command) {
  return {command.GetDialogType() == eTrel_DialogType_None ? "" : command.GetDialogMsg()};
}

Message::OKDialog Trel_SessionCommands::Read(const Trel_Cmd_OKDialog& /*command*/) { return {}; }

Message::CancelDialog Trel_SessionCommands::Read(const Trel_Cmd_CancelDialog& /*command*/) { return {}; }

Trel_SessionSystem Trel_SessionCommands::ReadPeer(const Trel_Cmd_Connect& command) {
  return {.address = command.GetIPAddressFrom(),
          .uniqueID = command.GetUniqueIDFrom(),
          .name = command.GetSatelliteName(),
          .hostName = command.GetHostname(),
          .majorVersion = command.GetProtocolMajorVersion(),
          .minorVersion = command.GetProtocolMinorVersion()};
}

Trel_System Trel_SessionCommands::ToSystem(const Trel_SessionSystem& system) {
  Trel_System record;
  record.SetIPAddress(system.address);
  record.SetPort(system.port);
  record.SetUniqueID(system.uniqueID);
  record.SetOrderNumber(system.place);
  record.SetSystemType(system.type);
  record.SetSystemName(system.name.c_str());
  record.SetHostName(system.hostName.c_str());
  record.SetMajorVersion(system.majorVersion);
  record.SetMinorVersion(system.minorVersion);
  return record;
}

Trel_SessionSystem Trel_SessionCommands::FromSystem(const TCPE_System& system) {
  return {.address = system.GetIPAddress(),
          .port = system.GetPort(),
          .uniqueID = system.GetUniqueID(),
          .place = system.GetOrderNumber(),
          .type = system.GetSystemType(),
          .name = system.GetSystemName(),
          .hostName = system.GetHostName(),
          .majorVersion = system.GetMajorVersion(),
          .minorVersion = system.GetMinorVersion()};
}

Trel_SessionSystem Trel_SessionCommands::LocalSystem() {
  return {.address = Trel_CommManager::GetAdaptorIPAddress(),
          .port = static_cast<std::uint16_t>(Trel_CommManager::GetCommunicationPort()),
          .uniqueID = Trel_CommManager::GetUniqueID(),
          .type = Trel_CommManager::GetSystemType(),
          .name = Trel_CommManager::GetSystemName(),
          .hostName = Trel_CommManager::GetLocalSystem()->GetHostName(), // set once, by Initialize
          .majorVersion = Trel_Command::GetCurrentProtocolMajorVersion(),
          .minorVersion = Trel_Command::GetCurrentProtocolMinorVersion()};
}
