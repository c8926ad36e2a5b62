#include <trel/Trel_Messenger.h>

#include <trel/TCPE_Cmd_Disconnect.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_Cmd_State.h>
#include <trel/Trel_Cmd_Transport.h>
#include <trel/Trel_CommManager.h>

#include <optional>

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
void Send(std::uint32_t address, Values... values) {
  SendFilled<Command>(
      address, [](Command&) {}, values...);
}

/// Sends a query; returns it if its reply is valid.
template <class Command>
std::optional<Command> Ask(std::uint32_t address) {
  std::optional<Command> command = SendFilled<Command>(address, [](Command&) {});
  if (command && Trel_Command::GetTCPECommandType(command->GetCommandType()) == -1) {
    command.reset();
  }
  return command;
}

} // namespace

void Trel_Messenger::Disconnect(std::uint32_t address) {
  // In both numberings the number of the legacy one.
  Send<TCPE_Cmd_Disconnect>(address, Trel_CommManager::GetLocalSystem(), eTrel_LegacyCmd_Disconnect);
}

void Trel_Messenger::ConnectComplete(std::uint32_t address) { Send<Trel_Cmd_ConnectComplete>(address); }

void Trel_Messenger::RequestMaxSatellites(std::int32_t maxSatellitesRequested, std::uint32_t address) {
  SendFilled<Trel_Cmd_RequestMaxSatellites>(
      address, [&](auto& command) { command.SetMaxSatellitesRequested(maxSatellitesRequested); });
}

void Trel_Messenger::GetState(ETrel_State* state, std::uint32_t address) {
  if (const auto reply = Ask<Trel_Cmd_GetState>(address)) {
    *state = reply->GetState();
  }
}

void Trel_Messenger::SendState(ETrel_State state, std::uint32_t address) { Send<Trel_Cmd_SendState>(address, state); }

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

void Trel_Messenger::UpdateMasterClockSource(std::uint32_t masterClock, std::uint32_t address) {
  SendFilled<Trel_Cmd_UpdateMasterClockSource>(address, [&](auto& command) {
    command.SetMasterClock(masterClock);
    command.SetUniqueID(static_cast<std::int32_t>(masterClock));
  });
}

void Trel_Messenger::ClockLockState(bool clockLocked, std::uint32_t address) {
  SendFilled<Trel_Cmd_ClockLockState>(address, [&](auto& command) { command.SetClockLocked(clockLocked); });
}
