#include <trel/Trel_Enumerations.h>

const char* ETrel_State_String[8] = {
    "eTrel_State_Stopping",     "eTrel_State_Stop",         "eTrel_State_Priming", "eTrel_State_PrimeCompleted",
    "eTrel_State_ClockSyncing", "eTrel_State_ClocksSynced", "eTrel_State_Play",    "eTrel_State_FFRew",
};

const char* ETrel_LinkState_String[4] = {
    "eTrel_LinkState_NotLinkable",
    "eTrel_LinkState_Linkable",
    "eTrel_LinkState_LinkedNotPlayable",
    "eTrel_LinkState_LinkedPlayable",
};

const char* ETrel_Group_String[5] = {
    "eTrel_Group_All", "eTrel_Group_1", "eTrel_Group_2", "eTrel_Group_3", "eTrel_Group_4",
};

const char* ETrel_DialogType_String[4] = {
    "eTrel_DialogType_None",
    "eTrel_DialogType_Unknown",
    "eTrel_DialogType_QexError",
    "eTrel_DialogType_FerrowError",
};

const char* TrelPlayRateString[7] = {"Undefined", "23.976", "24", "25", "29.97", "50", "59.94"};

const char* TrelVideoFormatString[26] = {
    "None",           "NTSC 23.976P", "NTSC 24P",       "NTSC 30I",           "PAL 24P",
    "PAL 25P",        "PAL 25I",      "HD 720P 23.976", "HD 720P 60 Edit 60", "HD 1080P 23.976",
    "HD 1080P 24",    "HD 1080I 50",  "HD 1080I 60",    "HD Offline 23.976P", "HD Offline 24P",
    "HD Offline 25P", "HD 1080P 25",  "HD 720P 25",     "HDV 720P 30",        "HD 720P 60 Edit 30",
    "HDV 1080I 50",   "HDV 1080I 60", "HD 1080P 30",    "HD 720P 50",         "Undefined",
    nullptr,
};

const char* ETrel_VideoReferenceFormatString[39] = {
    "Undefined",  "NTSC",      "PAL",        "SlowPAL_23976", "SlowPAL_24",  "720p_23976", "720p_24",
    "720p_25",    "720p_2997", "720p_30",    "720p_50",       "720p_5994",   "720p_60",    "1080i_4795",
    "1080i_48",   "1080i_50",  "1080i_5994", "1080i_60",      "1080p_23976", "1080p_24",   "1080p_25",
    "1080p_2997", "1080p_30",  "1080p_50",   "1080p_5994",    "1080p_60",
};
