#pragma once

#include <array>
#include <cstdint>

/// Every command of the link: name, identifier in the current numbering, identifier in the legacy numbering.
///
/// Sorted by current identifier. The identifiers travel between systems: never renumber a row.
#define TREL_COMMAND_TABLE(ROW)                                                                                        \
  ROW(DiscoveryRequest, 2, 2)                                                                                          \
  ROW(DiscoverMasterSystems, 3, 3)                                                                                     \
  ROW(Connect, 5, 18)                                                                                                  \
  ROW(ConnectComplete, 6, 4)                                                                                           \
  ROW(ConnectTo, 7, 49)                                                                                                \
  ROW(ConnectToComplete, 8, 76)                                                                                        \
  ROW(DoConnectTo, 9, 73)                                                                                              \
  ROW(DoConnectToComplete, 10, 74)                                                                                     \
  ROW(AllConnectionsComplete, 11, 75)                                                                                  \
  ROW(Disconnect, 12, 19)                                                                                              \
  ROW(DisconnectFrom, 13, 50)                                                                                          \
  ROW(Prime, 14, 5)                                                                                                    \
  ROW(SyncClock, 15, 6)                                                                                                \
  ROW(StartPlayback, 16, 7)                                                                                            \
  ROW(StopPlayback, 17, 8)                                                                                             \
  ROW(UpdateLinkState, 18, 9)                                                                                          \
  ROW(RequestLink, 19, 10)                                                                                             \
  ROW(RequestControl, 20, 11)                                                                                          \
  ROW(SystemInControl, 21, 12)                                                                                         \
  ROW(UpdateVideo, 22, 13)                                                                                             \
  ROW(ImAlive, 23, 14)                                                                                                 \
  ROW(SetCurrentSelection, 24, 15)                                                                                     \
  ROW(GetCurrentSelection, 25, 16)                                                                                     \
  ROW(GetDocumentStartAndLength, 26, 17)                                                                               \
  ROW(GetName, 27, 20)                                                                                                 \
  ROW(GetStartDelay, 28, 21)                                                                                           \
  ROW(ListSystems, 29, 22)                                                                                             \
  ROW(UpdateRunningTime, 30, 23)                                                                                       \
  ROW(LastUpdateRunningTimeValid, 31, 24)                                                                              \
  ROW(FrameEdgeInRunningTime, 32, 25)                                                                                  \
  ROW(ResetClock, 33, 26)                                                                                              \
  ROW(ReportPlayStartData, 34, 28)                                                                                     \
  ROW(SendState, 35, 29)                                                                                               \
  ROW(ClockLockState, 36, 30)                                                                                          \
  ROW(GetCurrentRunningTime, 37, 31)                                                                                   \
  ROW(SetLoopPlay, 38, 32)                                                                                             \
  ROW(GetLoopPlay, 39, 33)                                                                                             \
  ROW(GetFrameEdgeInRunningTime, 40, 34)                                                                               \
  ROW(SequenceChanged, 41, 35)                                                                                         \
  ROW(GetProjectRate, 42, 36)                                                                                          \
  ROW(GetEditPlayRate, 43, 37)                                                                                         \
  ROW(GetDigitalCutRate, 44, 38)                                                                                       \
  ROW(VideoReferenceFormat, 45, 39)                                                                                    \
  ROW(GetProjectInfo, 46, 40)                                                                                          \
  ROW(TrackIsSoloed, 47, 41)                                                                                           \
  ROW(GetTrackIsSoloed, 48, 42)                                                                                        \
  ROW(SoloAllTracks, 49, 43)                                                                                           \
  ROW(TestRunningTime, 50, 44)                                                                                         \
  ROW(GetPlayRange, 51, 45)                                                                                            \
  ROW(RequestSupplyMasterClock, 52, 46)                                                                                \
  ROW(UpdateMasterClockSource, 53, 47)                                                                                 \
  ROW(RequestOnline, 54, 48)                                                                                           \
  ROW(GetPositionRunningTimeCorrelation, 55, 52)                                                                       \
  ROW(GetSystemInformation, 56, 53)                                                                                    \
  ROW(SetOrderNumber, 57, 54)                                                                                          \
  ROW(GetType, 58, 55)                                                                                                 \
  ROW(LockPlaybackToSystem, 59, 56)                                                                                    \
  ROW(CancelDialog, 60, 57)                                                                                            \
  ROW(OKDialog, 61, 58)                                                                                                \
  ROW(DialogOnScreen, 62, 59)                                                                                          \
  ROW(UpdateGrouping, 63, 60)                                                                                          \
  ROW(RequestGroupEnable, 64, 61)                                                                                      \
  ROW(UpdateGroupEnable, 65, 62)                                                                                       \
  ROW(SetSystemName, 66, 63)                                                                                           \
  ROW(SetMasterSystem, 67, 64)                                                                                         \
  ROW(UpdateOnlineState, 68, 65)                                                                                       \
  ROW(VideoReferenceAvailable, 69, 66)                                                                                 \
  ROW(GetState, 70, 67)                                                                                                \
  ROW(UpdateCanSupplyClock, 71, 68)                                                                                    \
  ROW(RequestMaxSatellites, 72, 69)                                                                                    \
  ROW(GetMaxSatellites, 73, 70)                                                                                        \
  ROW(GetMaxSatellitesSupported, 74, 71)                                                                               \
  ROW(UpdateSystemIsRecording, 75, 72)                                                                                 \
  ROW(RequestSupplyMasterClockComplete, 79, 79)                                                                        \
  ROW(GetIsMasterClock, 80, 80)                                                                                        \
  ROW(ConnectionFailed, 666, 51)

/// Command identifiers: `eTrel_Cmd_<Name>` in the current numbering, `eTrel_LegacyCmd_<Name>` in the legacy one, where
/// the same number is another command. Whoever registers handlers or compares types uses what the class's
/// GetCommandID() answers, the identifier of the numbering in force, and none of these constants.
enum Trel_eCmd : std::int32_t {
  eTrel_Cmd_Invalid = 0,
#define TREL_ROW(Name, Current, Legacy) eTrel_Cmd_##Name = (Current), eTrel_LegacyCmd_##Name = (Legacy),
  TREL_COMMAND_TABLE(TREL_ROW)
#undef TREL_ROW
};

/// One row of the table of commands.
struct Trel_CommandIdentifiers {
  const char* name;
  Trel_eCmd current;
  Trel_eCmd legacy;
};

namespace Trel_Identifiers {
#define TREL_ROW(Name, Current, Legacy)                                                                                \
  inline constexpr Trel_CommandIdentifiers Name{#Name, eTrel_Cmd_##Name, eTrel_LegacyCmd_##Name};
TREL_COMMAND_TABLE(TREL_ROW)
#undef TREL_ROW
} // namespace Trel_Identifiers

/// The table of commands, walkable.
inline constexpr std::array kTrel_CommandTable{
#define TREL_ROW(Name, Current, Legacy) Trel_Identifiers::Name,
    TREL_COMMAND_TABLE(TREL_ROW)
#undef TREL_ROW
};
static_assert(kTrel_CommandTable.size() == 76);
