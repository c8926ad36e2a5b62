#pragma once

#include "Demo_Node.h"

#include <memory>
#include <optional>

class Player;
class Trel_Cmd_Prime;
class Trel_Cmd_StartPlayback;
class Trel_Cmd_StopPlayback;

/// A satellite of the demonstration: links, lets its clock be correlated, primes, starts and stops as it is told.
class Demo_Satellite : public Demo_Node {
public:
  explicit Demo_Satellite(const Demo_NodeOptions& options);
  ~Demo_Satellite() override;

  /// Until the coordinator says that it is over, or the link is lost.
  /// @return an ExitStatus
  int Run();

private:
  bool Link();
  void OnNetworkError(TCPE_CommManager::ENetworkError error, std::uint32_t address) override;
  void OnPrime(Trel_Cmd_Prime& command);
  void OnStartPlayback(Trel_Cmd_StartPlayback& command);
  void OnStopPlayback(Trel_Cmd_StopPlayback& command);
  void ReportStart(std::int64_t runningTime, std::int64_t rawTime);

  std::optional<TCPE_CommManager::ENetworkError> mNetworkError; // guarded by mMutex
  std::unique_ptr<Player> mPlayer;
};
