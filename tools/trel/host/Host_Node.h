#pragma once

#include "tools/trel/common/Capture_Writer.h"
#include "tools/trel/host/Host_ClockSampler.h"
#include "tools/trel/host/Host_Input.h"
#include "tools/trel/host/Host_Options.h"
#include "tools/trel/host/Host_Session.h"

#include <optional>

class Host_Events;

/// The command-line host from its start to its end. One object a process.
class Host_Node {
public:
  /// The platform has been prepared.
  Host_Node(const Host_Options& options, Host_Events& events);

  /// Until the user has had enough.
  /// @return an ExitStatus
  int Run();

private:
  bool StartEngine();
  /// What the user may want to know about the address that was chosen.
  std::string Notice() const;
  void TellReady() const;
  /// Carries out what the user types.
  int Converse();
  void LeaveLink();

  const Host_Options mOptions;
  Host_Events& mEvents;
  std::optional<Capture_Writer> mCapture;
  Host_Session mSession;
  std::optional<Host_ClockSampler> mSampler;
  Host_Input mInput;
};
