#pragma once

#include <trel/Trel_DescribedCommand.h>
#include <trel/Trel_Enumerations.h>

#include <cstddef>

/// Commands about groups and soloed tracks.

/// Announces the grouping of systems. The grid stays with the object that it was set in: 64 zero bytes travel, whatever
/// it holds, and a receiver learns nothing but that they came.
class TREL_EXPORT Trel_Cmd_UpdateGrouping : public Trel_DescribedCommand<Trel_Cmd_UpdateGrouping> {
  TREL_COMMAND(UpdateGrouping, .synchronous = false)
  static constexpr std::size_t kRows = 4;
  static constexpr std::size_t kColumns = 4;
  using Grid = Trel_Array<Trel_MuteU32, kRows * kColumns>;
  TREL_FIELD_WITHOUT_ACCESSORS(Grid, System, "grid of 4 rows by 4 columns, row by row; 0 on the wire")
  static constexpr Trel_Payload kCommand{kSystem};

  /// Sets a place of the grid; one outside is ignored. Mind the type of the first argument: a number is the row, 0..3;
  /// an enumerator is a group, and group n has the row n - 1. So `1` and `eTrel_Group_1` are different rows, and
  /// eTrel_Group_All has none.
  void SetSystem(std::size_t row, std::size_t column, std::uint32_t system);
  void SetSystem(ETrel_Group group, std::size_t column, std::uint32_t system);
  /// Gets a place of the grid; 0 outside.
  std::uint32_t GetSystem(std::size_t row, std::size_t column) const;
  std::uint32_t GetSystem(ETrel_Group group, std::size_t column = 0) const;
};

/// Asks for a group to be enabled, or disabled.
class TREL_EXPORT Trel_Cmd_RequestGroupEnable : public Trel_DescribedCommand<Trel_Cmd_RequestGroupEnable> {
  TREL_COMMAND(RequestGroupEnable, .synchronous = false)
  TREL_FIELD(Trel_I32<ETrel_Group>, Group, "the group, ETrel_Group")
  TREL_FIELD(Trel_Bool, Enable, "enable it, or disable it")
  static constexpr Trel_Payload kCommand{kGroup, kEnable};
};

/// Tells which of the four groups are enabled.
class TREL_EXPORT Trel_Cmd_UpdateGroupEnable : public Trel_DescribedCommand<Trel_Cmd_UpdateGroupEnable> {
  TREL_COMMAND(UpdateGroupEnable, .synchronous = false)
  static constexpr std::size_t kGroups = 4;
  using Flags = Trel_Array<Trel_Bool, kGroups>;
  TREL_FIELD_WITHOUT_ACCESSORS(Flags, Enable, "the group is enabled")
  static constexpr Trel_Payload kCommand{kEnable};

  /// Flag of a group, 0..3; one outside is ignored, and false.
  void SetEnable(std::size_t group, bool enable);
  bool GetEnable(std::size_t group) const;
};

/// Reports whether a track of the sender is soloed.
class TREL_EXPORT Trel_Cmd_TrackIsSoloed : public Trel_DescribedCommand<Trel_Cmd_TrackIsSoloed> {
  TREL_COMMAND(TrackIsSoloed, .synchronous = false)
  TREL_COMMAND_FIELD(Trel_Bool, TrackIsSoloed, "a track is soloed")

  explicit Trel_Cmd_TrackIsSoloed(bool soloed) : mTrackIsSoloed(soloed) {}
};

/// Asks whether a track of a system is soloed.
class TREL_EXPORT Trel_Cmd_GetTrackIsSoloed : public Trel_DescribedCommand<Trel_Cmd_GetTrackIsSoloed> {
  TREL_COMMAND(GetTrackIsSoloed, .synchronous = true)
  TREL_REPLY_FIELD(Trel_Bool, TrackIsSoloed, "a track is soloed")
};

/// Solos all tracks of a system, or none.
class TREL_EXPORT Trel_Cmd_SoloAllTracks : public Trel_DescribedCommand<Trel_Cmd_SoloAllTracks> {
  TREL_COMMAND(SoloAllTracks, .synchronous = false)
  TREL_COMMAND_FIELD(Trel_Bool, Solo, "solo all, or none")

  explicit Trel_Cmd_SoloAllTracks(bool solo) : mSolo(solo) {}
};
