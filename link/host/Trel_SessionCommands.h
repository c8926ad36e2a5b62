#pragma once

#include "link/session/Trel_SessionTypes.h"

#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_Cmd_Control.h>
#include <trel/Trel_Cmd_Dialogs.h>
#include <trel/Trel_Cmd_Grouping.h>
#include <trel/Trel_Cmd_Identity.h>
#include <trel/Trel_Cmd_Selection.h>
#include <trel/Trel_Cmd_State.h>
#include <trel/Trel_Cmd_Transport.h>
#include <trel/Trel_Cmd_Video.h>
#include <trel/Trel_System.h>

#include <cstdint>
#include <span>

/// Between the messages of a session and the commands that carry them: the one place that knows both. Thread-safe.
class Trel_SessionCommands {
public:
  using Message = Trel_SessionMessage;

  static constexpr std::int32_t kPlaySpeed = 1; ///< as it was recorded

  struct Sent {
    Message::Outcome outcome = Message::Outcome::none;
    std::int64_t value = 0; ///< that the answer tells
  };
  /// Sends a message to one system. One that is to be confirmed waits for that; the outcome of any other is `none`.
  /// Not initialised or not connected, nothing is sent.
  static Sent Send(const Message::Any& message, std::uint32_t address);
  /// Sends a message that is not to be confirmed, encoded once for all, and does not wait.
  static void SendToAll(const Message::Any& message, std::span<const std::uint32_t> addresses);
  static bool IsConfirmed(const Message::Any& message);

  // What received commands say.
  static Message::SetMasterSystem Read(const Trel_Cmd_SetMasterSystem& command);
  static Message::SetOrderNumber Read(const Trel_Cmd_SetOrderNumber& command);
  static Message::ListSystems Read(const Trel_Cmd_ListSystems& command);
  static Message::ConnectTo Read(const Trel_Cmd_ConnectTo& command);
  static Message::DisconnectFrom Read(const Trel_Cmd_DisconnectFrom& command);
  static Message::DoConnectTo Read(const Trel_Cmd_DoConnectTo& command);
  static Message::DoConnectToComplete Read(const Trel_Cmd_DoConnectToComplete& command);
  static Message::ConnectToComplete Read(const Trel_Cmd_ConnectToComplete& command);
  static Message::ConnectionFailed Read(const Trel_Cmd_ConnectionFailed& command);
  static Message::AllConnectionsComplete Read(const Trel_Cmd_AllConnectionsComplete& command);
  static Message::SetSystemName Read(const Trel_Cmd_SetSystemName& command);
  static Message::ConnectComplete Read(const Trel_Cmd_ConnectComplete& command);
  static Message::SystemInControl Read(const Trel_Cmd_SystemInControl& command);
  static Message::Prime Read(const Trel_Cmd_Prime& command);
  static Message::StartPlayback Read(const Trel_Cmd_StartPlayback& command);
  static Message::StopPlayback Read(const Trel_Cmd_StopPlayback& command);
  static Message::ReportPlayStartData Read(const Trel_Cmd_ReportPlayStartData& command);
  static Message::SendState Read(const Trel_Cmd_SendState& command);
  static Message::ClockLockState Read(const Trel_Cmd_ClockLockState& command);
  static Message::UpdateLinkState Read(const Trel_Cmd_UpdateLinkState& command);
  static Message::RequestLink Read(const Trel_Cmd_RequestLink& command);
  static Message::UpdateOnlineState Read(const Trel_Cmd_UpdateOnlineState& command);
  static Message::RequestOnline Read(const Trel_Cmd_RequestOnline& command);
  static Message::UpdateSystemIsRecording Read(const Trel_Cmd_UpdateSystemIsRecording& command);
  static Message::TrackIsSoloed Read(const Trel_Cmd_TrackIsSoloed& command);
  static Message::SoloAllTracks Read(const Trel_Cmd_SoloAllTracks& command);
  static Message::SetLoopPlay Read(const Trel_Cmd_SetLoopPlay& command);
  static Message::SetCurrentSelection Read(const Trel_Cmd_SetCurrentSelection& command);
  static Message::RequestGroupEnable Read(const Trel_Cmd_RequestGroupEnable& command);
  static Message::UpdateGroupEnable Read(const Trel_Cmd_UpdateGroupEnable& command);
  static Message::VideoReferenceAvailable Read(const Trel_Cmd_VideoReferenceAvailable& command);
  static Message::VideoReferenceFormat Read(const Trel_Cmd_VideoReferenceFormat& command);
  static Message::DialogOnScreen Read(const Trel_Cmd_DialogOnScreen& command);
  static Message::OKDialog Read(const Trel_Cmd_OKDialog& command);
  static Message::CancelDialog Read(const Trel_Cmd_CancelDialog& command);
  /// Who has connected.
  static Trel_SessionSystem ReadPeer(const Trel_Cmd_Connect& command);

  static Trel_System ToSystem(const Trel_SessionSystem& system);
  static Trel_SessionSystem FromSystem(const TCPE_System& system);
  /// This system, with its address and the protocol that it speaks.
  static Trel_SessionSystem LocalSystem();
};
