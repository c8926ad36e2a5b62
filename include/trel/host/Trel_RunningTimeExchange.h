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
/// there. That is wrong by up to half of what a round trip lasted longer than the undisturbed one, so only the quickest
/// are vouched for. The first running time of an exchange wakes whoever takes part in it; then they go out back to back
/// until one comes within 1 us or 5 % of the shortest round trip of late: a dozen at the most, and no more than three
/// once they have taken 5 ms. Only the last can be vouched for, because the receiver keeps no other. When all were too
/// long, none is vouched for and the allowance doubles for the next time; the ninth time in a row, or when the next
/// would come more than four seconds after the one before, the last is vouched for whatever it was, so a peer on a
/// disturbed network is never starved. The shortest round trip is that of the last 40 to 80 exchanges, so a network
/// that has become slower is taken as it is after a while. All round trips of a new peer's first exchange, a dozen,
/// make its shortest one known before the first is vouched for.
///
/// A new peer gets its first four measurements, which lock its clock, in quick succession; for them four times the
/// allowance is enough. From then on the pauses become longer, for what tells its rate is the time that its window
/// spans.
///
/// What a peer knows may be the running time of a system that is gone, so before its first running time it is sent
/// ResetClock, until it has answered that. Who has is remembered: a peer that is missing from the ticks, or does not
/// answer, for less than ten seconds, because a cable was pulled, keeps its clock. One that has left in order may come
/// back with another clock within that time: Forget it. A new instance of a peer's engine is another peer.
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
    std::int64_t firstInterval = 15'000; ///< of the first four; each one after them is a quarter longer
    std::int64_t retryInterval = 50'000; ///< the longest after an exchange that was not vouched for
    std::int64_t interval = 250'000;     ///< the longest; up to 500 ms keep the receiver at its strictest
    /// Times the number of peers, 2 s at the most: where that is longer than interval, it takes its place, and half of
    /// it that of retryInterval; an eighth of it is the least pause once a clock is locked. Peers with full windows are
    /// then served in two groups, because a thread that is awake serves another one for less. So a full link costs the
    /// master little.
    std::int64_t intervalForEachPeer = 30'000;
    std::int64_t firstMeasurements = 25; ///< vouched exchanges after which the window counts as full
  };

  /// What has been seen of a peer. Round trips are microseconds, 0 when there was none.
  struct Status {
    std::int64_t lastRoundTrip = 0;
    std::int64_t smallestRoundTrip = 0;    ///< of late
    std::int64_t lastVouchedRoundTrip = 0; ///< of the last exchange that was vouched for
    std::int64_t roundTrips = 0;           ///< running times sent and answered
    std::int64_t vouched = 0;              ///< of these, vouched for
    std::int64_t failures = 0;             ///< commands that were not answered
  };

  Trel_RunningTimeExchange();
  explicit Trel_RunningTimeExchange(const Settings& settings);
  virtual ~Trel_RunningTimeExchange();

  /// Does the exchange with every peer that is due. Blocks for their round trips, and for a time-out when a peer does
  /// not answer. Not initialised or not connected, the peers count as not answering.
  /// @param addresses the peers, IPv4 in host order; of those missing here no more is remembered than that they have
  ///        been reset
  /// @param runningTime a running time, microseconds; while the call lasts it is taken to advance like host time
  /// @param hostTime the host time of that running time. The default, now, errs by as much as the caller is held up
  ///        between reading the running time and calling; give both when they were read together.
  void Tick(const std::set<std::uint32_t>& addresses, std::int64_t runningTime,
            std::int64_t hostTime = Sys_Clock::Microseconds());

  /// The host time before which a Tick for the same peers does nothing; the largest number without peers.
  std::int64_t NextDue() const;

  /// Starts anew with every peer, beginning with ResetClock, as is due when running time has jumped.
  void Restart();

  /// Forgets a peer that has ended its connection in order: should it come back, it is reset.
  void Forget(std::uint32_t address);

  /// Nothing for an address that the last Tick did not name.
  std::optional<Status> GetStatus(std::uint32_t address) const;

protected:
  /// Sends a synchronous command and waits. Returns whether the reply is valid.
  virtual bool Send(Trel_Command* command);
  /// Which instance of an engine is connected at an address; 0 when that is not known.
  virtual std::uint64_t PeerInstance(std::uint32_t address);

private:
  static constexpr std::int64_t kNone = std::numeric_limits<std::int64_t>::max();

  struct Peer {
    Status mStatus{};
    std::int64_t mDue = std::numeric_limits<std::int64_t>::min(); // host time
    std::int64_t mFailuresInRow = 0;
    std::int64_t mUnvouchedInRow = 0;
    std::int64_t mLastVouched = std::numeric_limits<std::int64_t>::max() / 2; // host time; before the first, the future
    std::int64_t mPause = kNone; // after an exchange that was vouched for, while the window fills
    // Shortest round trips of the last full era and of the present one.
    std::int64_t mShortestBefore = kNone;
    std::int64_t mShortestNow = kNone;
    std::int64_t mExchangesNow = 0;
    std::uint64_t mInstance = 0;
    bool mIsReset = false;             // has answered ResetClock
    std::int64_t mAbsentSince = kNone; // host time; it was missing or did not answer, and has not answered since
    bool mIsNamed = true;              // by the last Tick; of what is above only the last three count otherwise
  };

  enum class Outcome { vouched, notVouched, failed };

  void LookWhoIsThere(const std::set<std::uint32_t>& addresses, std::int64_t now);

  static void KeepRoundTrip(Peer& peer, std::int64_t roundTrip);
  static bool IsGood(const Peer& peer, std::int64_t roundTrip);
  Outcome Exchange(std::uint32_t address, Peer& peer, std::int64_t runningTimeAtZero, bool isLastChance);
  bool ResetClock(std::uint32_t address);
  bool MeasureRoundTrip(std::uint32_t address, Peer& peer, std::int64_t runningTimeAtZero);
  bool Vouch(std::uint32_t address, Peer& peer);

  Settings mSettings;
  std::map<std::uint32_t, Peer> mPeers;
};
