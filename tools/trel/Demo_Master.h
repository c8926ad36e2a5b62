#pragma once

#include "Demo_Node.h"

#include <trel/Trel_Enumerations.h>

#include <map>
#include <memory>
#include <optional>
#include <stop_token>
#include <vector>

class Player;
class Trel_Cmd_ClockLockState;
class Trel_Cmd_Connect;
class Trel_Cmd_ReportPlayStartData;
class Trel_Cmd_SendState;
struct Status_Snapshot;

/// The master of the demonstration: waits for its satellites, keeps their clocks in step, conducts the rounds, and
/// plays along.
class Demo_Master : public Demo_Node {
public:
  explicit Demo_Master(const Demo_NodeOptions& options);
  ~Demo_Master() override;

  /// Until the coordinator says that it is over.
  /// @return an ExitStatus
  int Run();

  /// The longest that Run takes until it tells that all rounds are over.
  static std::chrono::milliseconds LongestRun(std::int32_t rounds);

private:
  /// What is known of a satellite; of the master itself only whether it has reported its start.
  struct System {
    bool isLinked = false;
    bool isLocked = false;
    bool isLost = false;
    bool hasReported = false;
    std::optional<std::int64_t> late; // its last actual start, after the agreed one,
    std::int64_t lateAt = 0;          // which was this
    ETrel_State state = eTrel_State_Stop;
  };
  using Addresses = std::vector<std::uint32_t>;

  void Conduct();
  void PlayRound(std::int32_t round, const Addresses& addresses);
  /// Waits until the condition holds for each of the systems that is not lost; tells for which ones it does not.
  /// @return those that it holds for
  template <class Condition>
  Addresses WaitForEach(const Addresses& addresses, std::chrono::milliseconds timeOut, const char* whatFails,
                        Condition condition);
  void Exchange(const std::stop_token& stop) const;
  std::int64_t RunningTime() const;
  Status_Snapshot Status();
  void TakeStart(std::uint32_t address, std::int64_t actualStart);

  void OnNetworkError(TCPE_CommManager::ENetworkError error, std::uint32_t address) override;
  void OnConnect(Trel_Cmd_Connect& command);
  void OnClockLockState(Trel_Cmd_ClockLockState& command);
  void OnSendState(Trel_Cmd_SendState& command);
  void OnReportPlayStartData(Trel_Cmd_ReportPlayStartData& command);
  template <class Change>
  void Update(std::uint32_t address, Change change);

  std::int64_t mEpoch = 0;                  // host time of running time 0
  std::int64_t mStart = 0;                  // guarded by mMutex, as the next; running time of the round's start
  std::int64_t mReportedStart = 0;          // the last one that anybody has reported
  std::map<std::uint32_t, System> mSystems; // guarded by mMutex; by address
  std::unique_ptr<Player> mPlayer;
};
