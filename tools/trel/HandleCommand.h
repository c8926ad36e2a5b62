#pragma once

#include <trel/Trel_Command.h>

/// Has a command of the peers handled by a member function of an object: `HandleCommand<Trel_Cmd_Prime,
/// &Player::OnPrime>(this)`. The object lives as long as the engine runs; before the engine starts.
template <class Command, auto Handler, class Owner>
void HandleCommand(Owner* owner) {
  static Owner* sOwner = nullptr;
  sOwner = owner;
  Trel_Command::SetDoItCommand(Command::GetCommandID(),
                               [](TCPE_Command* command) { (sOwner->*Handler)(static_cast<Command&>(*command)); });
}
