#include <trel/Sys_Clock.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_CommManager.h>
#include <trel/host/Trel_RunningTimeExchange.h>

#include <algorithm>
#include <tuple>
#include <utility>
#include <vector>

namespace {

// Running times of an exchange after its first one.
constexpr int kMostOfABurst = 12;
constexpr int kMostOfALongBurst = 3;
constexpr std::int64_t kLockingMeasurements = 4;
constexpr std::int64_t kDoublingsForLocking = 2;
constexpr std::int64_t kExchangesOfAnEra = 40;
constexpr std::int64_t kMostUnvouchedInRow = 8;
constexpr std::size_t kMostAbsent = 128;

// Microseconds.
constexpr std::int64_t kLongBurst = 5'000;
constexpr std::int64_t kShortestPause = 500'000;
constexpr std::int64_t kLongestPause = 30'000'000;
// A clock counts as lost after 5 s without a measurement.
constexpr std::int64_t kLongestIntervalForMany = 2'000'000;
constexpr std::int64_t kLongestUnvouched = 4'000'000;
constexpr std::int64_t kGroups = 2;       // that the peers of a large link are served in
constexpr std::int64_t kFillingTimes = 8; // as often while their windows fill
constexpr std::int64_t kPauseForTimeLost = 4;
constexpr std::int64_t kLongFailure = 100'000;
constexpr std::int64_t kLongestAbsence = 10'000'000;

std::int64_t PauseAfter(std::int64_t timeLost, std::int64_t failuresInRow) {
  const std::int64_t first = std::max(kShortestPause, kPauseForTimeLost * timeLost);
  const auto doublings = static_cast<unsigned>(std::clamp<std::int64_t>(failuresInRow - 1, 0, 10));
  return std::min(first << doublings, kLongestPause);
}

} // namespace

Trel_RunningTimeExchange::Trel_RunningTimeExchange() = default;

Trel_RunningTimeExchange::Trel_RunningTimeExchange(const Settings& settings) : mSettings(settings) {}

Trel_RunningTimeExchange::~Trel_RunningTimeExchange() = default;

void Trel_RunningTimeExchange::Tick(const std::set<std::uint32_t>& addresses, std::int64_t runningTime,
                                    std::int64_t hostTime) {
  const std::int64_t now = Sys_Clock::Microseconds();
  const std::int64_t runningTimeAtZero = runningTime - hostTime;

  LookWhoIsThere(addresses, now);
  std::vector<std::tuple<std::int64_t, std::int64_t, std::uint32_t>> due; // in the order in which they are served
  for (const std::uint32_t address : addresses) {
    const Peer& peer = mPeers[address];
    if (peer.mDue <= now) {
      due.emplace_back(peer.mFailuresInRow, peer.mDue, address);
    }
  }
  std::sort(due.begin(), due.end());
  const std::int64_t forMany =
      std::min(mSettings.intervalForEachPeer * static_cast<std::int64_t>(addresses.size()), kLongestIntervalForMany);
  const std::int64_t interval = std::max(mSettings.interval, forMany);
  const std::int64_t groupInterval = forMany > mSettings.interval ? std::max<std::int64_t>(forMany / kGroups, 1) : 1;
  const std::int64_t groupTime = now - now % groupInterval;
  const std::int64_t retryInterval = std::max(mSettings.retryInterval, groupInterval);

  for (const auto& [failuresInRow, dueTime, address] : due) {
    Peer& peer = mPeers[address];
    const std::int64_t begin = Sys_Clock::Microseconds();
    const bool isLastChance = begin + retryInterval > peer.mLastVouched + kLongestUnvouched;
    const Outcome outcome = Exchange(address, peer, runningTimeAtZero, isLastChance);
    if (outcome != Outcome::failed) {
      peer.mAbsentSince = kNone;
      peer.mFailuresInRow = 0;
      peer.mLastVouched = outcome == Outcome::vouched || peer.mStatus.vouched == 0 ? begin : peer.mLastVouched;
      peer.mUnvouchedInRow = outcome == Outcome::vouched ? 0 : peer.mUnvouchedInRow + 1;
      const bool isFull = peer.mStatus.vouched >= mSettings.firstMeasurements;
      const bool isVouched = outcome == Outcome::vouched;
      const bool isLocking = peer.mStatus.vouched < kLockingMeasurements;
      if (isVouched) {
        peer.mPause = isLocking ? mSettings.firstInterval : std::min(peer.mPause * 5 / 4, mSettings.interval);
      }
      if (isFull) {
        peer.mDue = groupTime + (isVouched ? interval : retryInterval);
      } else {
        const std::int64_t pause = isVouched ? peer.mPause : std::min(mSettings.retryInterval, peer.mPause);
        peer.mDue = now + std::max(pause, isLocking ? 0 : forMany / kFillingTimes);
      }
      continue;
    }
    ++peer.mStatus.failures;
    ++peer.mFailuresInRow;
    peer.mAbsentSince = std::min(peer.mAbsentSince, begin);
    const std::int64_t end = Sys_Clock::Microseconds();
    peer.mLastVouched = end; // it gets new chances
    peer.mDue = end + PauseAfter(end - begin, peer.mFailuresInRow);
    if (end - begin >= kLongFailure) {
      return;
    }
  }
}

std::int64_t Trel_RunningTimeExchange::NextDue() const {
  std::int64_t next = kNone;
  for (const auto& [address, peer] : mPeers) {
    next = std::min(next, peer.mDue);
  }
  return next;
}

void Trel_RunningTimeExchange::Restart() { mPeers.clear(); }

void Trel_RunningTimeExchange::Forget(std::uint32_t address) { mPeers.erase(address); }

std::optional<Trel_RunningTimeExchange::Status> Trel_RunningTimeExchange::GetStatus(std::uint32_t address) const {
  const auto peer = mPeers.find(address);
  return peer != mPeers.end() && peer->second.mIsNamed ? std::optional(peer->second.mStatus) : std::nullopt;
}

bool Trel_RunningTimeExchange::Send(Trel_Command* command) {
  const TCPE_CommManager::NeverWaits neverWaits; // one peer must not cost the others their measurements
  Trel_CommManager::SendCommand(command);
  return Trel_Command::GetTCPECommandType(command->GetCommandType()) != -1;
}

std::uint64_t Trel_RunningTimeExchange::PeerInstance(std::uint32_t address) {
  return Trel_CommManager::GetPeerInstance(address);
}

void Trel_RunningTimeExchange::LookWhoIsThere(const std::set<std::uint32_t>& addresses, std::int64_t now) {
  const auto isAwayLong = [now](const Peer& peer) {
    return peer.mAbsentSince != kNone && now - peer.mAbsentSince >= kLongestAbsence;
  };
  for (const std::uint32_t address : addresses) {
    const std::uint64_t instance = PeerInstance(address);
    Peer& peer = mPeers.try_emplace(address, Peer{.mInstance = instance}).first->second;
    if (instance != 0 && instance != peer.mInstance) {
      peer = {.mInstance = instance};
    } else if (!peer.mIsNamed) {
      peer = {.mInstance = peer.mInstance, .mIsReset = peer.mIsReset, .mAbsentSince = peer.mAbsentSince};
    }
    peer.mIsReset = peer.mIsReset && !isAwayLong(peer);
  }
  for (auto& [address, peer] : mPeers) {
    if (!addresses.contains(address)) {
      peer = {.mDue = kNone,
              .mInstance = peer.mInstance,
              .mIsReset = peer.mIsReset,
              .mAbsentSince = std::min(peer.mAbsentSince, now),
              .mIsNamed = false};
    }
  }
  std::erase_if(mPeers, [&isAwayLong](const auto& known) {
    const Peer& peer = known.second;
    return !peer.mIsNamed && (!peer.mIsReset || isAwayLong(peer));
  });
  while (mPeers.size() > addresses.size() + kMostAbsent) { // the longest absent one goes
    mPeers.erase(std::min_element(mPeers.begin(), mPeers.end(), [](const auto& one, const auto& other) {
      return std::pair(one.second.mIsNamed, one.second.mAbsentSince) <
             std::pair(other.second.mIsNamed, other.second.mAbsentSince);
    }));
  }
}

void Trel_RunningTimeExchange::KeepRoundTrip(Peer& peer, std::int64_t roundTrip) {
  peer.mShortestNow = std::min(peer.mShortestNow, roundTrip);
  ++peer.mStatus.roundTrips;
  peer.mStatus.lastRoundTrip = roundTrip;
  peer.mStatus.smallestRoundTrip = std::min(peer.mShortestBefore, peer.mShortestNow);
}

bool Trel_RunningTimeExchange::IsGood(const Peer& peer, std::int64_t roundTrip) {
  const std::int64_t shortest = peer.mStatus.smallestRoundTrip;
  const std::int64_t allowance = std::max<std::int64_t>(shortest / 20, 1);
  const std::int64_t doublings =
      peer.mUnvouchedInRow + (peer.mStatus.vouched < kLockingMeasurements ? kDoublingsForLocking : 0);
  return roundTrip - shortest <= allowance << static_cast<unsigned>(std::min(doublings, kMostUnvouchedInRow));
}

Trel_RunningTimeExchange::Outcome Trel_RunningTimeExchange::Exchange(std::uint32_t address, Peer& peer,
                                                                     std::int64_t runningTimeAtZero,
                                                                     bool isLastChance) {
  peer.mIsReset = peer.mIsReset || ResetClock(address);
  if (!peer.mIsReset) {
    return Outcome::failed;
  }
  if (peer.mExchangesNow == kExchangesOfAnEra) {
    peer.mShortestBefore = std::exchange(peer.mShortestNow, kNone);
    peer.mExchangesNow = 0;
  }
  ++peer.mExchangesNow;
  const bool isNew = peer.mStatus.roundTrips == 0;
  const std::int64_t begin = Sys_Clock::Microseconds();
  bool isGood = false;
  int most = kMostOfABurst;
  for (int count = 0; !isGood && count <= (isNew ? 2 : 1) * most; ++count) {
    if (!MeasureRoundTrip(address, peer, runningTimeAtZero)) {
      return Outcome::failed;
    }
    most = Sys_Clock::Microseconds() - begin < kLongBurst ? kMostOfABurst : kMostOfALongBurst;
    const int least = isNew ? most : 1;
    isGood = count >= least && IsGood(peer, peer.mStatus.lastRoundTrip);
  }
  if (!isGood && peer.mUnvouchedInRow < kMostUnvouchedInRow && !isLastChance) {
    return Outcome::notVouched;
  }
  return Vouch(address, peer) ? Outcome::vouched : Outcome::failed;
}

bool Trel_RunningTimeExchange::ResetClock(std::uint32_t address) {
  Trel_Cmd_ResetClock command;
  command.SetIPAddressTo(address);
  return Send(&command);
}

bool Trel_RunningTimeExchange::MeasureRoundTrip(std::uint32_t address, Peer& peer, std::int64_t runningTimeAtZero) {
  Trel_Cmd_UpdateRunningTime command;
  command.SetIPAddressTo(address);
  const std::int64_t sent = Sys_Clock::Microseconds();
  command.SetRunningTime(runningTimeAtZero + sent);
  if (!Send(&command)) {
    return false;
  }
  const std::int64_t arrival = command.GetArrivalTime();
  KeepRoundTrip(peer, (arrival >= sent ? arrival : Sys_Clock::Microseconds()) - sent);
  return true;
}

bool Trel_RunningTimeExchange::Vouch(std::uint32_t address, Peer& peer) {
  Trel_Cmd_LastUpdateRunningTimeValid command;
  command.SetIPAddressTo(address);
  command.SetRoundTripTime(peer.mStatus.lastRoundTrip);
  if (!Send(&command)) {
    return false;
  }
  ++peer.mStatus.vouched;
  peer.mStatus.lastVouchedRoundTrip = peer.mStatus.lastRoundTrip;
  return true;
}
