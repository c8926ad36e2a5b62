#pragma once

#include "tools/trel/common/SignalPipe.h"
#include "tools/trel/common/Status_Snapshot.h"

#include <cstdint>
#include <memory>
#include <string>

class Status_Client;
class Watch_Terminal;

/// `trel watch`: finds the host and shows what it tells, until somebody has had enough.
class Watch_Session {
public:
  struct Options {
    std::uint32_t address = 0; ///< 0: the only host
    std::int64_t process = 0;  ///< 0: the only host
    bool once = false;
    bool json = false;
    double interval = 0.0; ///< seconds; 0: as usual
  };

  explicit Watch_Session(const Options& options);
  ~Watch_Session();
  Watch_Session(const Watch_Session&) = delete;
  Watch_Session& operator=(const Watch_Session&) = delete;

  /// @return an ExitStatus
  int Run();

private:
  /// Connects to the host that is meant and takes what it tells first. False when there is none; that has been told.
  bool Choose();
  int Follow();
  /// Takes what the host has told by now. False when it tells nothing any more.
  bool Take();
  void Show();

  const Options mOptions;
  SignalPipe mSignals;
  std::unique_ptr<Status_Client> mClient;
  std::unique_ptr<Watch_Terminal> mTerminal; // only with a screen
  Status_Snapshot mSnapshot;
  std::int64_t mLastHeard = 0;     // raw time
  bool mHasHeardConnection = true; // since it was opened
};
