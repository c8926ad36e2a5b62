#pragma once

#include "tools/trel/demo/Demo_Host.h"
#include "tools/trel/demo/Demo_Log.h"
#include "tools/trel/demo/Demo_Observer.h"
#include "tools/trel/demo/Demo_Results.h"

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

/// Runs the demonstration from outside: starts a host for each system, and has the master's host conduct the rounds. It
/// is no part of the link.
class Demo_Coordinator {
public:
  struct Options {
    std::int32_t satellites = 3;
    std::int32_t rounds = 5;
    std::uint16_t port = 0; ///< 0: the default port, or a free one when that is taken
    bool legacy = false;
    bool reports = false;    ///< collects what a report shows
    std::string captureFile; ///< of what the master sends and receives; empty: none
  };

  /// What happens is told on `out`.
  Demo_Coordinator(const Options& options, std::ostream& out);

  /// @return an ExitStatus
  int Run();
  const Demo_Results& Results() const { return mResults; }
  const Report_Data& Report() const { return mLog.Report(); }

private:
  using Milliseconds = std::chrono::milliseconds;
  using Satellites = std::vector<Demo_Host*>;

  void StartHosts();
  void StartHost(const Demo_Host::Options& options, const std::string& words);
  void Conduct();
  /// False when the master takes no more commands.
  bool PlayRound(std::int32_t round, const Satellites& satellites);
  void Finish();
  void CheckCompleteness();

  /// Takes what the hosts tell until the condition holds; false when the time is over first, or it cannot hold any
  /// more.
  template <class Condition>
  bool Await(Condition condition, Milliseconds timeOut);
  /// Until the condition holds for each of the satellites that is not lost; tells for which ones it does not.
  /// @return those that it holds for
  template <class Condition>
  Satellites AwaitEach(const Satellites& satellites, Milliseconds timeOut, const char* whatFails, Condition condition);
  /// Has the master carry out a command, and waits for its answer.
  bool Order(const std::string& command);
  void TakeEvents(Milliseconds longest);
  void TakeEnd(Demo_Host& host);
  void Say(const std::string& text);
  void Fail(const std::string& text);

  Demo_Host& Master() const { return *mHosts.back(); }
  bool AreSatellitesOver() const;

  const Options mOptions;
  Demo_Log mLog;
  Demo_Results mResults;
  Demo_Hosts mHosts;
  Demo_Observer mObserver;
  bool mIsFinishing = false; // the hosts have been told to end
  int mSignal = 0;
};
