#pragma once

#include <trel/TCPE_Types.h>
#include <trel/Trel_Cmd_Selection.h>
#include <trel/Trel_Enumerations.h>
#include <trel/Trel_Export.h>
#include <trel/Trel_System.h>

#include <cstdint>

/// The host's outgoing side of the link: each operation sends one command to one system.
///
/// `address` is the destination's IPv4 address, host order; no value is special. It is the last argument, except in
/// SendSystemList and NotifySequenceChanged, where it is the first. Running times, positions and timestamps go out
/// unchanged; what they mean stands at the command classes.
///
/// All operations are thread-safe and keep no state. None is real-time-safe. Those that are said to wait block until
/// the destination has answered, or for two seconds (unless configured) at the most; the others return as soon as the
/// engine has taken the command. Nothing is reported: a command that cannot be sent is dropped, and a query without a
/// valid answer leaves its targets untouched and returns 0 or false. While the engine is not initialised nothing is
/// sent and the same results hold. Exceptions are RequestControl and GetSatelliteName.
///
/// Texts end with a zero byte. Buffers for texts that come in are not checked: 30 bytes hold every system name, 256
/// every host name.
class TREL_EXPORT Trel_Messenger {
public:
  Trel_Messenger() = default;

  // Connection.

  /// Tells a satellite to connect to another system. Only the address is set; what the current numbering carries
  /// beside it (port, identifier, names, role, version) stays 0 and empty.
  static void ConnectTo(std::uint32_t connectToIPAddress, std::uint32_t address);
  /// Answers ConnectTo: to which system, and whether the connection stands. Not sent in the legacy numbering.
  static void ConnectToComplete(std::uint32_t connectionIP, std::uint16_t connectionPort, bool success,
                                std::uint32_t address);
  /// Answers DoConnectTo; the command's success flag stays false. Not sent in the legacy numbering.
  static void DoConnectToComplete(std::uint32_t address);
  /// Tells a master that the connection sequence is complete; waits.
  static void ConnectComplete(std::uint32_t address);
  /// Tells that a connection to a system could not be made. Receivers drop it in the current numbering.
  static void ConnectionFailed(std::uint32_t failedConnectionIPAddress, std::uint32_t address);
  /// Ends the connection with a system.
  static void Disconnect(std::uint32_t address);
  /// Tells a system to end its connection to another one, named by its IPv4 address. The command's identifier stays 0,
  /// and that is what the current numbering carries: there, send a Trel_Cmd_DisconnectFrom with its identifier set.
  static void DisconnectFrom(std::uint32_t disconnectFromIPAddress, std::uint32_t address);
  /// Asks a master to admit another number of satellites; above 128 counts as 128.
  static void RequestMaxSatellites(std::int32_t maxSatellitesRequested, std::uint32_t address);

  // Identity.

  /// Tells which systems are linked: `systems[0]` to `systems[count - 1]`, copied; with a count of 0 or less, none and
  /// `systems` is not looked at. A frame has room for 227; a longer list is not sent.
  static void SendSystemList(std::uint32_t address, const Trel_System* systems, std::int32_t count);
  /// Tells a system its name, 29 characters at the most; in place of a longer one goes "Unknown System Name".
  static void SetSystemName(const char* name, std::uint32_t address);
  /// Asks for the name of a system, into a buffer of 30 bytes; waits. Without a valid answer the buffer gets the empty
  /// text; only while the engine is not initialised it stays untouched.
  static void GetSatelliteName(char* name, std::uint32_t address);
  /// Asks for all that identifies a system, names into buffers of 30 and of 256 bytes; waits. Writes all four targets
  /// or none.
  static void GetSystemInformation(char* name, char* hostname, ETCPE_SystemType* type, std::uint32_t* orderNumber,
                                   std::uint32_t address);
  /// Places a system, named by its IPv4 address, in the order. The command's identifier stays 0, and that is what the
  /// current numbering carries: there, send a Trel_Cmd_SetOrderNumber with its identifier set.
  static void SetOrderNumber(std::int32_t orderNumber, std::uint32_t systemIPAddress, std::uint32_t address);
  /// Asks for the role of a system; waits.
  static ETCPE_SystemType GetType(std::uint32_t address);
  /// Tells which system is the master, by its IPv4 address.
  static void SetMasterSystem(std::uint32_t masterIPAddress, std::uint32_t address);

  // Control.

  /// Asks a satellite to link, or to unlink.
  static void RequestLink(bool link, std::uint32_t address);
  /// Asks for control of the transport; waits. True if this system has it now. True too while the engine is not
  /// initialised: a system on its own controls itself. False without a valid answer.
  static bool RequestControl(std::uint32_t address);
  /// Tells which system is in control: an identifier in the current numbering, an IPv4 address in the legacy one;
  /// waits.
  static void SendSystemInControl(std::int32_t systemInControl, std::uint32_t address);
  /// Asks a system to go on line, or off.
  static void RequestOnline(bool online, std::uint32_t address);

  // State.

  /// Asks for the transport state; waits.
  static void GetState(ETrel_State* state, std::uint32_t address);
  /// Reports this system's transport state; waits.
  static void SendState(ETrel_State state, std::uint32_t address);
  /// Reports whether this system can be linked, and is.
  static void UpdateLinkState(ETrel_LinkState linkState, std::uint32_t address);
  /// Reports whether this system is on line.
  static void UpdateOnlineState(bool online, std::uint32_t address);
  /// Reports whether this system records; waits.
  static void UpdateRecordState(bool isRecording, std::uint32_t address);

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
  /// Reports when playback began: three running times, us.
  static void ReportPlayStartData(std::int64_t audioPlayStartTimestamp, std::int64_t videoPlayStartTimestamp,
                                  std::int64_t frameEdgeTimestamp, std::uint32_t address);
  /// Asks for the range that a system is set to play; waits. Writes all seven targets or none.
  static void GetPlayRange(std::int64_t* preRollStart, std::int64_t* inPoint, std::int64_t* outPoint,
                           std::int64_t* postRollEnd, std::int64_t* actualStartTime, std::int32_t* playSpeed,
                           bool* loopPlay, std::uint32_t address);
  /// Sets loop play.
  static void SetLoopPlay(bool loopPlay, std::uint32_t address);
  /// Asks whether a system plays in a loop; waits. True only if the flag arrives as the byte 1, not as another one.
  static bool GetLoopPlay(std::uint32_t address);
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
  /// Reports whether this system can supply the master clock.
  static void UpdateCanSupplyClock(bool canSupplyClock, std::uint32_t address);
  /// Says which system supplies the master clock: an identifier in the current numbering, an IPv4 address in the legacy
  /// one.
  static void UpdateMasterClockSource(std::uint32_t masterClock, std::uint32_t address);
  /// Reports whether this system's clock is locked to the master's.
  static void ClockLockState(bool clockLocked, std::uint32_t address);

  // Project, selection and video. Positions and lengths are on the host's timeline, in the host's units.

  /// Asks where the document starts and how long it is; waits. Writes both targets or none.
  static void GetDocumentStartAndLength(std::int64_t* start, std::int64_t* length, std::uint32_t address);
  /// Tells that a sequence was opened, or closed.
  static void NotifySequenceChanged(std::uint32_t address, bool isOpened);
  /// Asks for rates and video reference; waits. Writes all six targets or none. The values are the peer's and may be
  /// none that the enumerations name.
  static void GetProjectInfo(ETrel_VideoFormat* projectRate, ETrel_PlayRate* editPlayRate,
                             ETrel_PlayRate* digitalCutRate, bool* dropFrame, bool* videoReferenceAvailable,
                             ETrel_VideoReferenceFormat* videoReferenceFormat, std::uint32_t address);
  /// Sets the selection; where the video moves with it is the host's to define.
  static void SetCurrentSelection(std::int64_t preRollStartTime, std::int64_t inTime, std::int64_t outTime,
                                  std::int64_t postRollStopTime, std::int64_t playStartMarkerTime, bool preRollEnabled,
                                  bool postRollEnabled, Trel_Cmd_SetCurrentSelection::EUpdateVideoTo updateVideoTo,
                                  std::uint32_t address);
  /// Asks for the selection; waits. Writes all seven targets or none. The two flags come out false whatever the
  /// destination has set: replies go out in a payload revision that does not carry them.
  static void GetCurrentSelection(std::int64_t* preRollStartTime, std::int64_t* inTime, std::int64_t* outTime,
                                  std::int64_t* postRollStopTime, std::int64_t* playStartMarkerTime,
                                  bool* preRollEnabled, bool* postRollEnabled, std::uint32_t address);
  /// Moves the video of a system to a position, and with the flag its counters too.
  static void UpdateVideo(std::int64_t updateVideoLocation, bool updateCounters, std::uint32_t address);
  /// Reports the format of this system's video reference signal.
  static void VideoReferenceFormat(ETrel_VideoReferenceFormat format, std::uint32_t address);
  /// Reports whether this system has a video reference signal.
  static void VideoReferenceAvailable(bool available, std::uint32_t address);

  // Solo and groups.

  /// Reports whether a track of this system is soloed.
  static void TrackIsSoloed(bool soloed, std::uint32_t address);
  /// Asks whether a track of a system is soloed; waits.
  static bool GetTrackIsSoloed(std::uint32_t address);
  /// Solos all tracks of a system, or none.
  static void SoloAllTracks(bool solo, std::uint32_t address);
  /// Asks for a group to be enabled, or disabled.
  static void RequestGroupEnable(ETrel_Group group, bool enable, std::uint32_t address);
  /// Tells which of the four groups are enabled: flags of the groups 0 to 3.
  static void UpdateGroupEnable(const bool enables[4], std::uint32_t address);

  // Dialogs.

  /// Tells that a dialog is on screen, and its text; 255 characters of it travel.
  static void DialogOnScreen(ETrel_DialogType dialogType, const char* dialogMsg, std::uint32_t address);
  /// Presses the OK button of the dialog on a system's screen; waits.
  static void OKDialog(std::uint32_t address);
  /// Presses the Cancel button; waits.
  static void CancelDialog(std::uint32_t address);
};
