#pragma once

#include "tools/trel/host/Host_Console.h"
#include "tools/trel/host/Host_Waiting.h"

#include <cstdint>
#include <vector>

class Host_Arguments;
class Host_ClockSampler;
class Host_Input;
class Host_Session;

/// What the user can have the host do.
class Host_Commands {
public:
  using Answer = Host_Console::Answer;

  /// @param sampler null: the errors of the clock are not measured
  Host_Commands(Host_Session& session, Host_Input& input, const Host_ClockSampler* sampler)
      : mSession(session), mSampler(sampler), mWaiting(session, input) {}

  std::vector<Host_Console::Command> Table();
  bool HasQuit() const { return mHasQuit; }

private:
  Answer Prime(Host_Arguments& arguments);
  Answer Start(Host_Arguments& arguments);
  Answer Solo(Host_Arguments& arguments);
  Answer AskForControl();
  Answer SetName(Host_Arguments& arguments);
  Answer SetOrder(Host_Arguments& arguments);
  Answer SwitchLink(Host_Arguments& arguments);
  Answer SwitchOnline(Host_Arguments& arguments);
  Answer Group(Host_Arguments& arguments);
  Answer Video(Host_Arguments& arguments);
  Answer Disconnect(Host_Arguments& arguments);
  Answer ClockErrors(Host_Arguments& arguments) const;

  Host_Session& mSession;
  const Host_ClockSampler* const mSampler;
  Host_Waiting mWaiting;
  bool mHasQuit = false;
};
