#pragma once

#include "Demo_Event.h"
#include "Demo_NodeOptions.h"
#include "Demo_Process.h"
#include "Demo_Results.h"
#include "Report_Collector.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

/// Runs the demonstration from outside: starts a process for each system, says what happens, and works out the figures.
/// It is no part of the link.
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
  const Report_Data& Report() const { return mReport.Data(); }

private:
  struct Node {
    Demo_NodeOptions options;
    Demo_Process process;
    bool isLost = false; ///< it has lost the others, or the master has lost it
    bool isOver = false; ///< its end has been seen to

    Node(Demo_NodeOptions nodeOptions, const std::string& program);
  };
  using SteadyClock = std::chrono::steady_clock;

  void StartNodes();
  /// Takes what the nodes tell until `isOver` holds; names what has failed when the time is over first.
  template <class Predicate>
  void TakeEventsUntil(Predicate isOver, std::chrono::milliseconds timeOut, const char* whatFails);
  void Take(const Demo_Event& event, Node& node);
  void TakeClock(const Demo_Event& event);
  void TakeStart(const Demo_Event& event);
  void SayStarts(const Demo_Event& roundOver);
  void TakeEnd(Node& node);
  void Finish();
  void CheckCompleteness();

  bool AreSatellitesOver() const;
  static std::string NameOf(std::uint32_t address);
  /// The master's for an address that is none of the satellites'.
  Node& FindNode(std::uint32_t address);
  Demo_Results::Satellite* FindSatellite(std::uint32_t address);
  double MillisecondsSinceStart(std::int64_t rawTime) const;
  /// For the report; needs no more than the fields that are particular to the event.
  void Record(const char* event, std::int64_t rawTime, nlohmann::json fields);
  void RecordSystem(const Demo_NodeOptions& options);
  void Say(std::int64_t rawTime, const std::string& text);
  void Print(std::int64_t rawTime, const std::string& text);
  void Fail(std::int64_t rawTime, const std::string& text);

  const Options mOptions;
  std::ostream& mOut;
  const std::int64_t mStart; // raw time
  Demo_Results mResults;
  Report_Collector mReport;
  std::vector<std::unique_ptr<Node>> mNodes; // the master last: see TakeEventsUntil
  std::int64_t mEpoch = 0;                   // raw time of running time 0
  bool mIsDone = false;                      // all rounds are over
  bool mIsFinishing = false;                 // the nodes have been told to end
  int mSignal = 0;
};
