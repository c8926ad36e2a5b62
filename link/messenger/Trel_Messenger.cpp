#include <trel/Trel_Messenger.h>

#include <trel/TCPE_Cmd_Disconnect.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_Cmd_Control.h>
#include <trel/Trel_Cmd_Dialogs.h>
#include <trel/Trel_Cmd_Grouping.h>
#include <trel/Trel_Cmd_Identity.h>
#include <trel/Trel_Cmd_Project.h>
#include <trel/Trel_Cmd_State.h>
#include <trel/Trel_Cmd_Transport.h>
#include <trel/Trel_Cmd_Video.h>
#include <trel/Trel_CommManager.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <optional>
#include <vector>

namespace {

/// Builds a command from its constructor's values, lets `fill` set what remains, and sends it; returns it with its
/// reply, or nothing when the engine is not initialised.
template <class Command, class Fill, class... Values>
std::optional<Command> SendFilled(std::uint32_t address, Fill fill, Values... values) {
  std::optional<Command> command;
  if (Trel_CommManager::IsInitialized()) {
    fill(command.emplace(values...));
    command->SetIPAddressTo(address);
    Trel_CommManager::SendCommand(&*command);
  }
  return command;
}

template <class Command, class... Values>
std::optional<Command> Send(std::uint32_t address, Values... values) {
  return SendFilled<Command>(
      address, [](Command&) {}, values...);
}

bool HasReply(const Trel_Command& command) { return Trel_Command::GetTCPECommandType(command.GetCommandType()) != -1; }

/// Sends a query; returns it if its reply is valid.
template <class Command>
std::optional<Command> Ask(std::uint32_t address) {
  std::optional<Command> command = Send<Command>(address);
  if (command && !HasReply(*command)) {
    command.reset();
  }
  return command;
}

/// Into a buffer of the host, which has room for every text of its kind.
void CopyText(const char* text, char* buffer) { std::copy_n(text, std::strlen(text) + 1, buffer); }

} // namespace

void Trel_Messenger::ConnectTo(std::uint32_t connectToIPAddress, std::uint32_t address) {
  SendFilled<Trel_Cmd_ConnectTo>(address, [&](auto& command) { command.SetConnectToIPAddress(connectToIPAddress); });
}

void Trel_Messenger::ConnectToComplete(std::uint32_t connectionIP, std::uint16_t connectionPort, bool success,
                                       std::uint32_t address) {
  SendFilled<Trel_Cmd_ConnectToComplete>(address, [&](auto& command) {
    command.SetConnectionIDIP(connectionIP);
    command.SetConnectionIDPort(connectionPort);
    command.SetSuccess(success);
  });
}

void Trel_Messenger::DoConnectToComplete(std::uint32_t address) { Send<Trel_Cmd_DoConnectToComplete>(address); }

void Trel_Messenger::ConnectComplete(std::uint32_t address) { Send<Trel_Cmd_ConnectComplete>(address); }

void Trel_Messenger::ConnectionFailed(std::uint32_t failedConnectionIPAddress, std::uint32_t address) {
  SendFilled<Trel_Cmd_ConnectionFailed>(
      address, [&](auto& command) { command.SetFailedConnectionIPAddress(failedConnectionIPAddress); });
}

void Trel_Messenger::Disconnect(std::uint32_t address) {
  // In both numberings the number of the legacy one.
  Send<TCPE_Cmd_Disconnect>(address, Trel_CommManager::GetLocalSystem(), eTrel_LegacyCmd_Disconnect);
}

void Trel_Messenger::DisconnectFrom(std::uint32_t disconnectFromIPAddress, std::uint32_t address) {
  SendFilled<Trel_Cmd_DisconnectFrom>(
      address, [&](auto& command) { command.SetDisconnectFromIPAddress(disconnectFromIPAddress); });
}

void Trel_Messenger::RequestMaxSatellites(std::int32_t maxSatellitesRequested, std::uint32_t address) {
  SendFilled<Trel_Cmd_RequestMaxSatellites>(
      address, [&](auto& command) { command.SetMaxSatellitesRequested(maxSatellitesRequested); });
}

void Trel_Messenger::SendSystemList(std::uint32_t address, const Trel_System* systems, std::int32_t count) {
  SendFilled<Trel_Cmd_ListSystems>(address, [&](auto& command) {
    const std::vector<Trel_System> list(systems, systems + std::max(count, 0));
    command.SetSystems(list);
  });
}

void Trel_Messenger::SetSystemName(const char* name, std::uint32_t address) {
  SendFilled<Trel_Cmd_SetSystemName>(address, [&](auto& command) { command.SetSystemName(name); });
}

void Trel_Messenger::GetSatelliteName(char* name, std::uint32_t address) {
  if (const auto command = Send<Trel_Cmd_GetName>(address)) {
    CopyText(HasReply(*command) ? command->GetName() : "", name);
  }
}

void Trel_Messenger::GetSystemInformation(char* name, char* hostname, ETCPE_SystemType* type,
                                          std::uint32_t* orderNumber, std::uint32_t address) {
  if (const auto reply = Ask<Trel_Cmd_GetSystemInformation>(address)) {
    CopyText(reply->GetName(), name);
    CopyText(reply->GetHostname(), hostname);
    *type = reply->GetType();
    *orderNumber = static_cast<std::uint32_t>(reply->GetOrderNumber());
  }
}

void Trel_Messenger::SetOrderNumber(std::int32_t orderNumber, std::uint32_t systemIPAddress, std::uint32_t address) {
  Send<Trel_Cmd_SetOrderNumber>(address, orderNumber, systemIPAddress);
}

ETCPE_SystemType Trel_Messenger::GetType(std::uint32_t address) {
  const auto reply = Ask<Trel_Cmd_GetType>(address);
  return reply ? reply->GetType() : eTCPE_SystemType_None;
}

void Trel_Messenger::SetMasterSystem(std::uint32_t masterIPAddress, std::uint32_t address) {
  Send<Trel_Cmd_SetMasterSystem>(address, masterIPAddress);
}

void Trel_Messenger::RequestLink(bool link, std::uint32_t address) { Send<Trel_Cmd_RequestLink>(address, link); }

bool Trel_Messenger::RequestControl(std::uint32_t address) {
  // Whatever the command holds afterwards; the validity of the reply is not asked for.
  const auto command = Send<Trel_Cmd_RequestControl>(address);
  return !command || command->GetHasControl();
}

void Trel_Messenger::SendSystemInControl(std::int32_t systemInControl, std::uint32_t address) {
  SendFilled<Trel_Cmd_SystemInControl>(address, [&](auto& command) {
    command.SetSystemInControl(static_cast<std::uint32_t>(systemInControl));
    command.SetUniqueID(systemInControl);
  });
}

void Trel_Messenger::RequestOnline(bool online, std::uint32_t address) {
  Send<Trel_Cmd_RequestOnline>(address, online);
}

void Trel_Messenger::GetState(ETrel_State* state, std::uint32_t address) {
  if (const auto reply = Ask<Trel_Cmd_GetState>(address)) {
    *state = reply->GetState();
  }
}

void Trel_Messenger::SendState(ETrel_State state, std::uint32_t address) { Send<Trel_Cmd_SendState>(address, state); }

void Trel_Messenger::UpdateLinkState(ETrel_LinkState linkState, std::uint32_t address) {
  SendFilled<Trel_Cmd_UpdateLinkState>(address, [&](auto& command) { command.SetLinkState(linkState); });
}

void Trel_Messenger::UpdateOnlineState(bool online, std::uint32_t address) {
  Send<Trel_Cmd_UpdateOnlineState>(address, online);
}

void Trel_Messenger::UpdateRecordState(bool isRecording, std::uint32_t address) {
  Send<Trel_Cmd_UpdateSystemIsRecording>(address, isRecording);
}

void Trel_Messenger::Prime(std::int64_t preRollStart, std::int64_t inPoint, std::int64_t outPoint,
                           std::int64_t postRollEnd, std::int64_t actualStartTime, std::int32_t playSpeed,
                           std::uint32_t address) {
  Send<Trel_Cmd_Prime>(address, preRollStart, inPoint, outPoint, postRollEnd, actualStartTime, playSpeed);
}

void Trel_Messenger::Prime(std::int64_t preRollStart, std::int64_t inPoint, std::int64_t outPoint,
                           std::int64_t postRollEnd, std::int32_t playSpeed, std::uint32_t address) {
  Prime(preRollStart, inPoint, outPoint, postRollEnd, preRollStart, playSpeed, address);
}

void Trel_Messenger::StartPlayback(std::int64_t startAtRunningTime, std::uint32_t address) {
  Send<Trel_Cmd_StartPlayback>(address, startAtRunningTime);
}

void Trel_Messenger::StopPlayback(std::uint32_t address) { Send<Trel_Cmd_StopPlayback>(address); }

void Trel_Messenger::GetStartDelay(std::uint32_t* startDelay, std::uint32_t address) {
  if (const auto reply = Ask<Trel_Cmd_GetStartDelay>(address)) {
    *startDelay = reply->GetStartDelay();
  }
}

void Trel_Messenger::ReportPlayStartData(std::int64_t audioPlayStartTimestamp, std::int64_t videoPlayStartTimestamp,
                                         std::int64_t frameEdgeTimestamp, std::uint32_t address) {
  Send<Trel_Cmd_ReportPlayStartData>(address, audioPlayStartTimestamp, videoPlayStartTimestamp, frameEdgeTimestamp);
}

void Trel_Messenger::GetPlayRange(std::int64_t* preRollStart, std::int64_t* inPoint, std::int64_t* outPoint,
                                  std::int64_t* postRollEnd, std::int64_t* actualStartTime, std::int32_t* playSpeed,
                                  bool* loopPlay, std::uint32_t address) {
  if (const auto reply = Ask<Trel_Cmd_GetPlayRange>(address)) {
    *preRollStart = reply->GetPreRollStart();
    *inPoint = reply->GetInPoint();
    *outPoint = reply->GetOutPoint();
    *postRollEnd = reply->GetPostRollEnd();
    *actualStartTime = reply->GetActualStartTime();
    *playSpeed = reply->GetPlaySpeed();
    *loopPlay = reply->GetLoopPlay();
  }
}

void Trel_Messenger::SetLoopPlay(bool loopPlay, std::uint32_t address) {
  Send<Trel_Cmd_SetLoopPlay>(address, loopPlay);
}

bool Trel_Messenger::GetLoopPlay(std::uint32_t address) {
  const auto reply = Ask<Trel_Cmd_GetLoopPlay>(address);
  return reply && reply->GetLoopPlay();
}

void Trel_Messenger::LockPlaybackToSystem(std::uint32_t systemToLockTo, std::uint32_t address) {
  Send<Trel_Cmd_LockPlaybackToSystem>(address, systemToLockTo);
}

void Trel_Messenger::SyncClock(std::uint32_t address) { Send<Trel_Cmd_SyncClock>(address); }

void Trel_Messenger::UpdateRunningTime(std::int64_t runningTime, std::uint32_t address) {
  Send<Trel_Cmd_UpdateRunningTime>(address, runningTime);
}

void Trel_Messenger::LastUpdateRunningTimeValid(std::int64_t roundTripTime, std::uint32_t address) {
  SendFilled<Trel_Cmd_LastUpdateRunningTimeValid>(address,
                                                  [&](auto& command) { command.SetRoundTripTime(roundTripTime); });
}

void Trel_Messenger::ResetClock(std::uint32_t address) { Send<Trel_Cmd_ResetClock>(address); }

std::int64_t Trel_Messenger::GetCurrentRunningTime(std::uint32_t address) {
  const auto reply = Ask<Trel_Cmd_GetCurrentRunningTime>(address);
  return reply ? reply->GetRunningTime() : 0;
}

void Trel_Messenger::TestRunningTime(std::int64_t time, std::uint32_t address) {
  Send<Trel_Cmd_TestRunningTime>(address, time);
}

void Trel_Messenger::FrameEdgeInRunningTime(std::int64_t frameEdgeTime, std::uint32_t address) {
  Send<Trel_Cmd_FrameEdgeInRunningTime>(address, frameEdgeTime);
}

std::int64_t Trel_Messenger::GetFrameEdgeInRunningTime(std::uint32_t address) {
  const auto reply = Ask<Trel_Cmd_GetFrameEdgeInRunningTime>(address);
  return reply ? reply->GetFrameEdge() : 0;
}

void Trel_Messenger::GetPositionRunningTimeCorrelation(std::int64_t* position, std::int64_t* runningTime,
                                                       std::uint32_t address) {
  if (const auto reply = Ask<Trel_Cmd_GetPositionRunningTimeCorrelation>(address)) {
    *position = reply->GetPosition();
    *runningTime = reply->GetRunningTime();
  }
}

bool Trel_Messenger::RequestSupplyMasterClock(bool supplyMasterClock, std::uint32_t address) {
  // Whatever the command holds afterwards; the validity of the reply is not asked for.
  const auto command = SendFilled<Trel_Cmd_RequestSupplyMasterClock>(
      address, [&](auto& request) { request.SetSupplyMasterClock(supplyMasterClock); });
  return command && command->GetSuccess();
}

void Trel_Messenger::UpdateCanSupplyClock(bool canSupplyClock, std::uint32_t address) {
  Send<Trel_Cmd_UpdateCanSupplyClock>(address, canSupplyClock);
}

void Trel_Messenger::UpdateMasterClockSource(std::uint32_t masterClock, std::uint32_t address) {
  SendFilled<Trel_Cmd_UpdateMasterClockSource>(address, [&](auto& command) {
    command.SetMasterClock(masterClock);
    command.SetUniqueID(static_cast<std::int32_t>(masterClock));
  });
}

void Trel_Messenger::ClockLockState(bool clockLocked, std::uint32_t address) {
  SendFilled<Trel_Cmd_ClockLockState>(address, [&](auto& command) { command.SetClockLocked(clockLocked); });
}

void Trel_Messenger::GetDocumentStartAndLength(std::int64_t* start, std::int64_t* length, std::uint32_t address) {
  if (const auto reply = Ask<Trel_Cmd_GetDocumentStartAndLength>(address)) {
    *start = reply->GetStart();
    *length = reply->GetLength();
  }
}

void Trel_Messenger::NotifySequenceChanged(std::uint32_t address, bool isOpened) {
  SendFilled<Trel_Cmd_SequenceChanged>(address, [&](auto& command) { command.SetIsOpened(isOpened ? 1 : 0); });
}

void Trel_Messenger::GetProjectInfo(ETrel_VideoFormat* projectRate, ETrel_PlayRate* editPlayRate,
                                    ETrel_PlayRate* digitalCutRate, bool* dropFrame, bool* videoReferenceAvailable,
                                    ETrel_VideoReferenceFormat* videoReferenceFormat, std::uint32_t address) {
  if (const auto reply = Ask<Trel_Cmd_GetProjectInfo>(address)) {
    *projectRate = reply->GetProjectRate();
    *editPlayRate = reply->GetEditPlayRate();
    *digitalCutRate = reply->GetDigitalCutRate();
    *dropFrame = reply->GetDropFrame();
    *videoReferenceAvailable = reply->GetVideoReferenceAvailable();
    *videoReferenceFormat = reply->GetVideoReferenceFormat();
  }
}

void Trel_Messenger::SetCurrentSelection(std::int64_t preRollStartTime, std::int64_t inTime, std::int64_t outTime,
                                         std::int64_t postRollStopTime, std::int64_t playStartMarkerTime,
                                         bool preRollEnabled, bool postRollEnabled,
                                         Trel_Cmd_SetCurrentSelection::EUpdateVideoTo updateVideoTo,
                                         std::uint32_t address) {
  Send<Trel_Cmd_SetCurrentSelection>(address, preRollStartTime, inTime, outTime, postRollStopTime, playStartMarkerTime,
                                     preRollEnabled, postRollEnabled, updateVideoTo);
}

void Trel_Messenger::GetCurrentSelection(std::int64_t* preRollStartTime, std::int64_t* inTime, std::int64_t* outTime,
                                         std::int64_t* postRollStopTime, std::int64_t* playStartMarkerTime,
                                         bool* preRollEnabled, bool* postRollEnabled, std::uint32_t address) {
  if (const auto reply = Ask<Trel_Cmd_GetCurrentSelection>(address)) {
    *preRollStartTime = reply->GetPreRollStartTime();
    *inTime = reply->GetInTime();
    *outTime = reply->GetOutTime();
    *postRollStopTime = reply->GetPostRollStopTime();
    *playStartMarkerTime = reply->GetPlayStartMarkerTime();
    *preRollEnabled = reply->GetPreRollEnabled();
    *postRollEnabled = reply->GetPostRollEnabled();
  }
}

void Trel_Messenger::UpdateVideo(std::int64_t updateVideoLocation, bool updateCounters, std::uint32_t address) {
  Send<Trel_Cmd_UpdateVideo>(address, updateVideoLocation, updateCounters);
}

void Trel_Messenger::VideoReferenceFormat(ETrel_VideoReferenceFormat format, std::uint32_t address) {
  SendFilled<Trel_Cmd_VideoReferenceFormat>(address, [&](auto& command) { command.SetVideoReferenceFormat(format); });
}

void Trel_Messenger::VideoReferenceAvailable(bool available, std::uint32_t address) {
  Send<Trel_Cmd_VideoReferenceAvailable>(address, available);
}

void Trel_Messenger::TrackIsSoloed(bool soloed, std::uint32_t address) {
  Send<Trel_Cmd_TrackIsSoloed>(address, soloed);
}

bool Trel_Messenger::GetTrackIsSoloed(std::uint32_t address) {
  const auto reply = Ask<Trel_Cmd_GetTrackIsSoloed>(address);
  return reply && reply->GetTrackIsSoloed();
}

void Trel_Messenger::SoloAllTracks(bool solo, std::uint32_t address) { Send<Trel_Cmd_SoloAllTracks>(address, solo); }

void Trel_Messenger::RequestGroupEnable(ETrel_Group group, bool enable, std::uint32_t address) {
  SendFilled<Trel_Cmd_RequestGroupEnable>(address, [&](auto& command) {
    command.SetGroup(group);
    command.SetEnable(enable);
  });
}

void Trel_Messenger::UpdateGroupEnable(const bool enables[4], std::uint32_t address) {
  SendFilled<Trel_Cmd_UpdateGroupEnable>(address, [&](auto& command) {
    for (std::size_t group = 0; group < Trel_Cmd_UpdateGroupEnable::kGroups; ++group) {
      command.SetEnable(group, enables[group]);
    }
  });
}

void Trel_Messenger::DialogOnScreen(ETrel_DialogType dialogType, const char* dialogMsg, std::uint32_t address) {
  SendFilled<Trel_Cmd_DialogOnScreen>(
      address, [&](auto& command) { command.SetDialogMsg(dialogMsg); }, dialogType);
}

void Trel_Messenger::OKDialog(std::uint32_t address) { Send<Trel_Cmd_OKDialog>(address); }

void Trel_Messenger::CancelDialog(std::uint32_t address) { Send<Trel_Cmd_CancelDialog>(address); }
