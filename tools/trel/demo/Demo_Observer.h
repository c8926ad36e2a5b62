#pragma once

#include "tools/trel/demo/Demo_Host.h"
#include "tools/trel/demo/Demo_Log.h"
#include "tools/trel/demo/Demo_Results.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <string>

/// Takes what the hosts tell: knows how things stand with each, says what happens, and works out the figures.
class Demo_Observer {
public:
  using Json = nlohmann::json;

  /// `hosts` may grow until the first event.
  Demo_Observer(Demo_Hosts& hosts, Demo_Log& log, Demo_Results& results)
      : mHosts(hosts), mLog(log), mResults(results) {}

  /// A line that a host has told.
  void Take(const std::string& line, Demo_Host& host);

  /// The next events are of this round.
  void BeginRound(std::int32_t round);
  /// Answers and errors that the master has given to its commands.
  std::int64_t CountAnswers() const { return mAnswers; }
  /// Raw time of the master's running time 0; 0 while it is not known.
  std::int64_t Epoch() const { return mEpoch; }
  /// Whether everybody who made the last start has told it, and the master has told who has not.
  bool IsStartOver() const;
  /// Says how the last start went.
  void SayStart();

private:
  void TakeFromMaster(const std::string& kind, const Json& event, Demo_Host& master);
  void TakeFromSatellite(const std::string& kind, const Json& event, Demo_Host& satellite);
  void TakeFromAny(const std::string& kind, const Json& event, Demo_Host& host);
  void TakeLoss(const Json& event, const Demo_Host& by, Demo_Host& lost);
  void TakeClock(const Json& event, Demo_Host& satellite);
  void TakeBeginning(const Json& event, const Demo_Host& host);
  void TakeMissing(const Json& event);

  /// The master's for an address that is none of the satellites'.
  Demo_Host& HostOf(const Json& event);
  Demo_Results::Satellite& ResultOf(const Demo_Host& satellite);

  Demo_Hosts& mHosts;
  Demo_Log& mLog;
  Demo_Results& mResults;
  std::int64_t mEpoch = 0;
  std::int64_t mAnswers = 0;
  std::int32_t mRound = 0;
  Json mTogether; ///< what the master has told of the last start
};
