#pragma once

#include "tools/trel/host/Host_Console.h"

#include <trel/host/Trel_LinkState.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

class Host_Arguments;
class Host_Input;
class Host_Session;

/// Has the user, or a script, wait for what is to happen. A signal ends every wait.
class Host_Waiting {
public:
  Host_Waiting(const Host_Session& session, Host_Input& input) : mSession(session), mInput(input) {}

  /// The command "wait".
  Host_Console::Answer Wait(Host_Arguments& arguments);
  /// Until this system is ready or cannot get ready.
  void UntilPrimed();
  /// From now on "played" means the start with that running time.
  void ExpectStart(std::int64_t runningTime) { mExpectedStart = runningTime; }

private:
  struct Goal {
    const char* name;
    const char* otherwise; ///< what is the case when it is not reached in time
    bool (Host_Waiting::*isReached)() const;
  };

  bool AreClocksLocked() const;
  bool AreAllPrimed() const;
  bool HasPlayed() const;
  bool HasControl() const;
  /// Of those linked with this system that play when the others do.
  bool DoAllLinked(bool (*hold)(const Trel_SystemState& other)) const;
  void Pause(std::int64_t time);
  /// Returns when the condition holds; throws Host_Error when it does not in time.
  void Until(const std::function<bool()>& condition, const std::string& otherwise, std::int64_t timeOut);

  static const Goal kGoals[];

  const Host_Session& mSession;
  Host_Input& mInput;
  std::optional<std::int64_t> mExpectedStart;
};
