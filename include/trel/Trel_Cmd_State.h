#pragma once

#include <trel/Trel_DescribedCommand.h>
#include <trel/Trel_Enumerations.h>

/// Commands that report states.

/// Asks for the transport state of a system.
class TREL_EXPORT Trel_Cmd_GetState : public Trel_DescribedCommand<Trel_Cmd_GetState> {
  TREL_COMMAND(GetState, .synchronous = true)
  TREL_REPLY_FIELD(Trel_I32<ETrel_State>, State, "transport state, ETrel_State")
};

/// Reports the transport state of the sender; returns when it has been acknowledged.
class TREL_EXPORT Trel_Cmd_SendState : public Trel_DescribedCommand<Trel_Cmd_SendState> {
  TREL_COMMAND(SendState, .synchronous = true)
  TREL_COMMAND_FIELD(Trel_I32<ETrel_State>, State, "transport state, ETrel_State")

  explicit Trel_Cmd_SendState(ETrel_State state) : mState(state) {}

  /// The state's name for 0..6; nothing for other values, eTrel_State_FFRew among them.
  void GetSendDebugInfo(std::ostream& out) const override;
};

/// Reports whether a satellite can be linked, and is.
class TREL_EXPORT Trel_Cmd_UpdateLinkState : public Trel_DescribedCommand<Trel_Cmd_UpdateLinkState> {
  TREL_COMMAND(UpdateLinkState, .synchronous = false)
  TREL_COMMAND_FIELD(Trel_I32<ETrel_LinkState>, LinkState, "link state, ETrel_LinkState")
};

/// Reports whether the sender is on line.
class TREL_EXPORT Trel_Cmd_UpdateOnlineState : public Trel_DescribedCommand<Trel_Cmd_UpdateOnlineState> {
  TREL_COMMAND(UpdateOnlineState, .synchronous = false)
  TREL_COMMAND_FIELD(Trel_Bool, Online, "the sender is on line")

  explicit Trel_Cmd_UpdateOnlineState(bool online) : mOnline(online) {}
};

/// Reports whether the sender records; returns when it has been acknowledged.
class TREL_EXPORT Trel_Cmd_UpdateSystemIsRecording : public Trel_DescribedCommand<Trel_Cmd_UpdateSystemIsRecording> {
  TREL_COMMAND(UpdateSystemIsRecording, .synchronous = true)
  TREL_COMMAND_FIELD(Trel_Bool, SystemIsRecording, "the sender records")

  explicit Trel_Cmd_UpdateSystemIsRecording(bool isRecording) : mSystemIsRecording(isRecording) {}
};
