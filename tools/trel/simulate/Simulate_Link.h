#pragma once

#include "tools/trel/simulate/Simulate_Machine.h"

#include <trel/host/Trel_RunningTimeExchange.h>

#include <cstdint>
#include <set>

/// A link in virtual time: the exchange as a master does it, and the clock manager of this process as that of one of
/// its satellites; the others answer, and take the time that they take. One at a time.
class Simulate_Link : private Trel_RunningTimeExchange {
public:
  Simulate_Link(const Simulate_Scenario& scenario, std::uint32_t seed);
  ~Simulate_Link() override;
  Simulate_Link(const Simulate_Link&) = delete;
  Simulate_Link& operator=(const Simulate_Link&) = delete;

  Simulate_Figures::Run Run();

private:
  bool Send(Trel_Command* command) override;
  std::uint64_t PeerInstance(std::uint32_t address) override;

  bool IsCut() const;
  bool IsConnected() const;
  void Look();
  void LookAt(double shown, bool isLocked);

  const Simulate_Scenario& mScenario;
  Simulate_Random mRandom;
  Simulate_Machine mMaster;
  Simulate_Machine mSatellite;
  Simulate_Way mThere;
  Simulate_Way mBack;
  std::set<std::uint32_t> mAddresses;
  double mTime = 0;
  double mLookAt = 0;
  double mFalseSince = -1; // negative: it is not
  Simulate_Figures::Run mRun;
};
