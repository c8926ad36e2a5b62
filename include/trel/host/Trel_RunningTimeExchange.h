#pragma once

#include <trel/Sys_Clock.h>
#include <trel/Trel_Export.h>

#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <set>

class Trel_Command;

/// The master's side of the running-time exchange, which keeps the clocks of the other systems correlated to its
/// running time. The host owns one and calls Tick often; nothing happens between the calls, and there is no thread
/// behind it.
///
/// An exchange is UpdateRunningTime with the running time at sending; then, once the round trip is known and good, the
/// LastUpdateRunningTimeValid that vouches for it. The receiver takes half of the round trip as the delay of the way
/// there. That is wrong by up to half of what a round trip lasted longer than the undisturbed one, so the shortest
/// round trip of late is kept for each peer, and a good round trip is one that is not much longer: 30 % and 5 us. After
/// a longer one the running time is sent again at once, up to three times. Only the last can be vouched for, because
/// the receiver keeps no other. When all were too long, none is vouched for and the allowance doubles for the next
/// time; the ninth time in a row, or when the next would come more than four seconds after the one before, the last is
/// vouched for whatever it was, so a peer on a disturbed network is never starved. The shortest round trip is that of
/// the last 40 to 80, so a network that has become slower is taken as it is after a while. A new peer is sent four
/// running times before the first is vouched for, which makes its shortest round trip known.
///
/// A peer that does not answer is left in peace for half a second, or for four times as long as the failure took if
/// that is longer, and twice as long each time again, 30 s at the most. Peers that answer come first in each Tick, and
/// a Tick ends after a failure that took long, so a dead peer takes less than a fifth of the time and one time-out of a
/// Tick.
///
/// Not thread-safe: one thread at a time. Not real-time-safe.
class TREL_EXPORT Trel_RunningTimeExchange {
public:
  /// Microseconds between the exchanges with one peer. Shorter intervals than the host's ticks mean one each tick.
  struct Settings {
    std::int64_t mFirstInterval = 100'000; ///< until the peer's window of measurements is full
    std::int64_t mRetryInterval = 25'000;  ///< after an exchange that was not vouched for
    std::int64_t mInterval = 250'000;      ///< from then on; up to 500 ms keep the receiver at its strictest
    /// Times the number of peers, 2 s at the most: where that is longer than mInterval, it takes its place, and half of
    /// it that of mRetryInterval. Peers with full windows are then served in two groups, because a thread that is awake
    /// serves another one for less. So a full link costs the master little.
    std::int64_t mIntervalForEachPeer = 30'000;
    std::int64_t mFirstMeasurements = 25; ///< vouched exchanges after which the window counts as full
  };

  /// What has been seen of a peer. Round trips are microseconds, 0 when there was none.
  struct Status {
    std::int64_t mLastRoundTrip = 0;
    std::int64_t mSmallestRoundTrip = 0;    ///< of late
    std::int64_t mLastVouchedRoundTrip = 0; ///< of the last exchange that was vouched for
    std::int64_t mRoundTrips = 0;           ///< running times sent and answered
    std::int64_t mVouched = 0;              ///< of these, vouched for
    std::int64_t mFailures = 0;             ///< commands that were not answered
  };

  Trel_RunningTimeExchange();
  explicit Trel_RunningTimeExchange(const Settings& settings);
  virtual ~Trel_RunningTimeExchange();

  /// Does the exchange with every peer that is due. Blocks for their round trips, and for a time-out when a peer does
  /// not answer. Not initialised or not connected, the peers count as not answering.
  /// @param addresses the peers, IPv4 in host order; those missing here are forgotten
  /// @param runningTime a running time, microseconds; while the call lasts it is taken to advance like host time
  /// @param hostTime the host time of that running time. The default, now, errs by as much as the caller is held up
  ///        between reading the running time and calling; give both when they were read together.
  void Tick(const std::set<std::uint32_t>& addresses, std::int64_t runningTime,
            std::int64_t hostTime = Sys_Clock::Microseconds());

  /// The host time before which a Tick for the same peers does nothing; the largest number without peers.
  std::int64_t NextDue() const;

  /// Starts anew with every peer, as is due when running time has jumped and the peers' clocks have been reset.
  void Restart();

  /// Nothing for an address that the last Tick did not name.
  std::optional<Status> GetStatus(std::uint32_t address) const;

protected:
  /// Sends a synchronous command and waits. Returns whether the reply is valid.
  virtual bool Send(Trel_Command* command);

private:
  static constexpr std::int64_t kNone = std::numeric_limits<std::int64_t>::max();

  struct Peer {
    Status mStatus;
    std::int64_t mDue = std::numeric_limits<std::int64_t>::min(); // host time
    std::int64_t mFailuresInRow = 0;
    std::int64_t mUnvouchedInRow = 0;
    std::int64_t mLastVouched = std::numeric_limits<std::int64_t>::max() / 2; // host time; before the first, the future
    // Shortest round trips of the last full era and of the present one.
    std::int64_t mShortestBefore = kNone;
    std::int64_t mShortestNow = kNone;
    std::int64_t mRoundTripsNow = 0;
  };

  enum class Outcome { vouched, notVouched, failed };

  static void KeepRoundTrip(Peer& peer, std::int64_t roundTrip);
  static bool IsGood(const Peer& peer, std::int64_t roundTrip);
  Outcome Exchange(std::uint32_t address, Peer& peer, std::int64_t runningTimeAtZero, bool isLastChance);
  bool MeasureRoundTrip(std::uint32_t address, Peer& peer, std::int64_t runningTimeAtZero);
  bool Vouch(std::uint32_t address, Peer& peer);

  Settings mSettings;
  std::map<std::uint32_t, Peer> mPeers;
};
