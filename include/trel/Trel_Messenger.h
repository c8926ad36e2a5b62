#pragma once

#include <trel/Trel_Enumerations.h>
#include <trel/Trel_Export.h>

#include <cstdint>

/// The host's outgoing side of the link: each operation sends one command to one system.
///
/// `address` is the destination's IPv4 address, host order; no value is special. Running times, positions and
/// timestamps go out unchanged; what they mean stands at the command classes.
///
/// All operations are thread-safe and keep no state. None is real-time-safe. Those that are said to wait block until
/// the destination has answered, or for two seconds (unless configured) at the most; the others return as soon as the
/// engine has taken the command. Nothing is reported: a command that cannot be sent is dropped, and a query without a
/// valid answer leaves its targets untouched and returns 0 or false. While the engine is not initialised nothing is
/// sent and the same results hold.
class TREL_EXPORT Trel_Messenger {
public:
  Trel_Messenger() = default;

  // Connection.

  /// Ends the connection with a system.
  static void Disconnect(std::uint32_t address);
  /// Tells a master that the connection sequence is complete; waits.
  static void ConnectComplete(std::uint32_t address);
  /// Asks a master to admit another number of satellites; above 128 counts as 128.
  static void RequestMaxSatellites(std::int32_t maxSatellitesRequested, std::uint32_t address);

  // State.

  /// Asks for the transport state; waits.
  static void GetState(ETrel_State* state, std::uint32_t address);
  /// Reports this system's transport state; waits.
  static void SendState(ETrel_State state, std::uint32_t address);

  // Transport. Positions are on the host's timeline, in the host's units.

  /// Asks a system to get ready to play a range from `actualStartTime` on, at a speed in the host's units.
  static void Prime(std::int64_t preRollStart, std::int64_t inPoint, std::int64_t outPoint, std::int64_t postRollEnd,
                    std::int64_t actualStartTime, std::int32_t playSpeed, std::uint32_t address);
  /// The same, from the start of the pre-roll on.
  static void Prime(std::int64_t preRollStart, std::int64_t inPoint, std::int64_t outPoint, std::int64_t postRollEnd,
                    std::int32_t playSpeed, std::uint32_t address);
  /// Starts a primed system at a running time, us.
  static void StartPlayback(std::int64_t startAtRunningTime, std::uint32_t address);
  static void StopPlayback(std::uint32_t address);
  /// Asks how long a system takes from the start command to playback, us; waits.
  static void GetStartDelay(std::uint32_t* startDelay, std::uint32_t address);
  /// Reports when playback began; three times in us.
  static void ReportPlayStartData(std::int64_t audioPlayStartTimestamp, std::int64_t videoPlayStartTimestamp,
                                  std::int64_t frameEdgeTimestamp, std::uint32_t address);
  /// Asks for the range that a system is set to play; waits. Writes all seven targets or none.
  static void GetPlayRange(std::int64_t* preRollStart, std::int64_t* inPoint, std::int64_t* outPoint,
                           std::int64_t* postRollEnd, std::int64_t* actualStartTime, std::int32_t* playSpeed,
                           bool* loopPlay, std::uint32_t address);
  /// Makes a system follow the playback of another one, named by its IPv4 address. The command's identifier stays 0,
  /// and that is what the current numbering carries: there, send a Trel_Cmd_LockPlaybackToSystem with its identifier
  /// set.
  static void LockPlaybackToSystem(std::uint32_t systemToLockTo, std::uint32_t address);

  // Clock. Running times are on the master's scale, us.

  /// Tells a system to bring its clock in step.
  static void SyncClock(std::uint32_t address);
  /// First half of the running-time exchange: the running time now; waits, so that the host can measure the round trip.
  static void UpdateRunningTime(std::int64_t runningTime, std::uint32_t address);
  /// Second half: vouches for the exchange before it with its round trip, us; waits.
  static void LastUpdateRunningTimeValid(std::int64_t roundTripTime, std::uint32_t address);
  /// Empties the destination's clock correlation; waits.
  static void ResetClock(std::uint32_t address);
  /// Asks for the running time; waits. A 0 may be an answer, or that there was none.
  static std::int64_t GetCurrentRunningTime(std::uint32_t address);
  /// Sends a running time for a test of the host.
  static void TestRunningTime(std::int64_t time, std::uint32_t address);
  /// Tells where the frame edges lie, as the running time of one; waits.
  static void FrameEdgeInRunningTime(std::int64_t frameEdgeTime, std::uint32_t address);
  /// Asks where the frame edges lie; waits. A 0 may be an answer, or that there was none.
  static std::int64_t GetFrameEdgeInRunningTime(std::uint32_t address);
  /// Asks which timeline position belongs to which running time; waits. Writes both targets or none.
  static void GetPositionRunningTimeCorrelation(std::int64_t* position, std::int64_t* runningTime,
                                                std::uint32_t address);
  /// Asks a system to supply the master clock, or to stop doing so; waits. True if it does as asked.
  static bool RequestSupplyMasterClock(bool supplyMasterClock, std::uint32_t address);
  /// Says which system supplies the master clock: an identifier in the current numbering, an IPv4 address in the legacy
  /// one.
  static void UpdateMasterClockSource(std::uint32_t masterClock, std::uint32_t address);
  /// Reports whether this system's clock is locked to the master's.
  static void ClockLockState(bool clockLocked, std::uint32_t address);
};
