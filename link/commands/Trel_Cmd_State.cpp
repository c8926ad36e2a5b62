#include <trel/Trel_Cmd_State.h>

#include <ostream>

void Trel_Cmd_SendState::GetSendDebugInfo(std::ostream& out) const {
  if (mState >= eTrel_State_Stopping && mState <= eTrel_State_Play) {
    out << ETrel_State_String[mState];
  }
}
