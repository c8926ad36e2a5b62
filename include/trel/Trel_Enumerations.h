#pragma once

#include <trel/Trel_Export.h>

#include <cstdint>
#include <span>

/// Enumerations that travel in commands, as signed 32-bit integers, and their display strings.
///
/// Each table is indexed by the value; check the range, and for null, before printing: a peer may send anything.

/// Transport state of a system.
enum ETrel_State : std::int32_t {
  eTrel_State_Stopping = 0,
  eTrel_State_Stop = 1,
  eTrel_State_Priming = 2,
  eTrel_State_PrimeCompleted = 3,
  eTrel_State_ClockSyncing = 4,
  eTrel_State_ClocksSynced = 5,
  eTrel_State_Play = 6,
  eTrel_State_FFRew = 7,
};

/// Whether a satellite can be, and is, linked.
enum ETrel_LinkState : std::int32_t {
  eTrel_LinkState_NotLinkable = 0,
  eTrel_LinkState_Linkable = 1,
  eTrel_LinkState_LinkedNotPlayable = 2,
  eTrel_LinkState_LinkedPlayable = 3,
};

/// Edit and solo group.
enum ETrel_Group : std::int32_t {
  eTrel_Group_All = 0,
  eTrel_Group_1 = 1,
  eTrel_Group_2 = 2,
  eTrel_Group_3 = 3,
  eTrel_Group_4 = 4,
};

/// Kind of modal dialog that a system reports as on screen.
enum ETrel_DialogType : std::int32_t {
  eTrel_DialogType_None = 0,
  eTrel_DialogType_Unknown = 1,
  eTrel_DialogType_QexError = 2,
  eTrel_DialogType_FerrowError = 3,
};

/// Frame rate of a project, frames per second.
enum ETrel_PlayRate : std::int32_t {
  eTrel_PlayRate_Undefined = 0,
  eTrel_PlayRate_23976 = 1,
  eTrel_PlayRate_24 = 2,
  eTrel_PlayRate_25 = 3,
  eTrel_PlayRate_2997 = 4,
  eTrel_PlayRate_50 = 5,
  eTrel_PlayRate_5994 = 6,
};

/// Video format of a project.
enum ETrel_VideoFormat : std::int32_t {
  eTrel_VideoFormat_None = 0,
  eTrel_VideoFormat_NTSC_23976P = 1,
  eTrel_VideoFormat_NTSC_24P = 2,
  eTrel_VideoFormat_NTSC_30I = 3,
  eTrel_VideoFormat_PAL_24P = 4,
  eTrel_VideoFormat_PAL_25P = 5,
  eTrel_VideoFormat_PAL_25I = 6,
  eTrel_VideoFormat_HD_720P_23976 = 7,
  eTrel_VideoFormat_HD_720P_60_Edit_60 = 8,
  eTrel_VideoFormat_HD_1080P_23976 = 9,
  eTrel_VideoFormat_HD_1080P_24 = 10,
  eTrel_VideoFormat_HD_1080I_50 = 11,
  eTrel_VideoFormat_HD_1080I_60 = 12,
  eTrel_VideoFormat_HD_Offline_23976P = 13,
  eTrel_VideoFormat_HD_Offline_24P = 14,
  eTrel_VideoFormat_HD_Offline_25P = 15,
  eTrel_VideoFormat_HD_1080P_25 = 16,
  eTrel_VideoFormat_HD_720P_25 = 17,
  eTrel_VideoFormat_HDV_720P_30 = 18,
  eTrel_VideoFormat_HD_720P_60_Edit_30 = 19,
  eTrel_VideoFormat_HDV_1080I_50 = 20,
  eTrel_VideoFormat_HDV_1080I_60 = 21,
  eTrel_VideoFormat_HD_1080P_30 = 22,
  eTrel_VideoFormat_HD_720P_50 = 23,
  eTrel_VideoFormat_Undefined = 24,
};

/// Format of the video reference signal that a system is locked to.
enum ETrel_VideoReferenceFormat : std::int32_t {
  eTrel_VideoReferenceFormat_Undefined = 0,
  eTrel_VideoReferenceFormat_NTSC = 1,
  eTrel_VideoReferenceFormat_PAL = 2,
  eTrel_VideoReferenceFormat_SlowPAL_23976 = 3,
  eTrel_VideoReferenceFormat_SlowPAL_24 = 4,
  eTrel_VideoReferenceFormat_720p_23976 = 5,
  eTrel_VideoReferenceFormat_720p_24 = 6,
  eTrel_VideoReferenceFormat_720p_25 = 7,
  eTrel_VideoReferenceFormat_720p_2997 = 8,
  eTrel_VideoReferenceFormat_720p_30 = 9,
  eTrel_VideoReferenceFormat_720p_50 = 10,
  eTrel_VideoReferenceFormat_720p_5994 = 11,
  eTrel_VideoReferenceFormat_720p_60 = 12,
  eTrel_VideoReferenceFormat_1080i_4795 = 13,
  eTrel_VideoReferenceFormat_1080i_48 = 14,
  eTrel_VideoReferenceFormat_1080i_50 = 15,
  eTrel_VideoReferenceFormat_1080i_5994 = 16,
  eTrel_VideoReferenceFormat_1080i_60 = 17,
  eTrel_VideoReferenceFormat_1080p_23976 = 18,
  eTrel_VideoReferenceFormat_1080p_24 = 19,
  eTrel_VideoReferenceFormat_1080p_25 = 20,
  eTrel_VideoReferenceFormat_1080p_2997 = 21,
  eTrel_VideoReferenceFormat_1080p_30 = 22,
  eTrel_VideoReferenceFormat_1080p_50 = 23,
  eTrel_VideoReferenceFormat_1080p_5994 = 24,
  eTrel_VideoReferenceFormat_1080p_60 = 25,
};

extern TREL_EXPORT const char* ETrel_State_String[8];
extern TREL_EXPORT const char* ETrel_LinkState_String[4];
extern TREL_EXPORT const char* ETrel_Group_String[5];
extern TREL_EXPORT const char* ETrel_DialogType_String[4];
extern TREL_EXPORT const char* TrelPlayRateString[7];
/// "Undefined" stands at 24; the last entry is null.
extern TREL_EXPORT const char* TrelVideoFormatString[26];
/// Entries from 26 on are null.
extern TREL_EXPORT const char* ETrel_VideoReferenceFormatString[39];

/// The table of an enumeration.
inline std::span<const char* const> Trel_DisplayStrings(ETrel_State) { return ETrel_State_String; }
inline std::span<const char* const> Trel_DisplayStrings(ETrel_LinkState) { return ETrel_LinkState_String; }
inline std::span<const char* const> Trel_DisplayStrings(ETrel_Group) { return ETrel_Group_String; }
inline std::span<const char* const> Trel_DisplayStrings(ETrel_DialogType) { return ETrel_DialogType_String; }
inline std::span<const char* const> Trel_DisplayStrings(ETrel_PlayRate) { return TrelPlayRateString; }
inline std::span<const char* const> Trel_DisplayStrings(ETrel_VideoFormat) { return TrelVideoFormatString; }
inline std::span<const char* const> Trel_DisplayStrings(ETrel_VideoReferenceFormat) {
  return ETrel_VideoReferenceFormatString;
}
