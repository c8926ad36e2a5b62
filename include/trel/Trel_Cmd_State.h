#pragma once

#include <trel/Trel_DescribedCommand.h>
#include <trel/Trel_Enumerations.h>

/// Commands that report states.

/// Asks for the transport state of a system.
class TREL_EXPORT Trel_Cmd_GetState : public Trel_DescribedCommand<Trel_Cmd_GetState> {
  TREL_COMMAND(GetState, .synchronous = true)
  TREL_FIELD(Trel_I32<ETrel_State>, State, "transport state, ETrel_State")
  static constexpr Trel_Payload kReply{kState};
};

/// Reports the transport state of the sender; returns when it has been acknowledged.
class TREL_EXPORT Trel_Cmd_SendState : public Trel_DescribedCommand<Trel_Cmd_SendState> {
  TREL_COMMAND(SendState, .synchronous = true)
  TREL_FIELD(Trel_I32<ETrel_State>, State, "transport state, ETrel_State")
  static constexpr Trel_Payload kCommand{kState};

  explicit Trel_Cmd_SendState(ETrel_State state) : mState(state) {}

  /// The state's name for 0..6; nothing for other values, eTrel_State_FFRew among them.
  void GetSendDebugInfo(std::ostream& out) const override {
    if (mState >= eTrel_State_Stopping && mState <= eTrel_State_Play) {
      out << ETrel_State_String[mState];
    }
  }
};
