#pragma once

#include <trel/Trel_Export.h>

#include <cstdint>
#include <string>

/// @file
/// Start-up options: named values that configure the library without a recompilation. docs/options.md lists them.
///
/// An option's value is, in this order: what the process has set with SPSSetStartupOption, the environment variable
/// TREL_<name>, the line "name = value" of the options file, the default. The options file is the one that the
/// environment variable TREL_OPTIONS_FILE names, else $XDG_CONFIG_HOME/trel/options, else $HOME/.config/trel/options;
/// there need not be one. Its lines starting with '#' are comments; a line that is neither comment, empty nor
/// "name = value" is reported with file and line and skipped. Reports go to Cmn_Assert.
///
/// All functions are thread-safe; but as ever the environment must not be changed while another thread reads it. None
/// is real-time-safe: they take a lock and allocate.

/// Start-up of the option reader: reads the options file, again if it has been read already. With false there is no
/// options file. Without this call the file is read when the first option is.
TREL_EXPORT void PlatformSupport_Initialize(bool readOptionsFile);

/// The decimal value of an option; the default if the option is not given, or, with a report, if its value is not a
/// number that 32 bits hold.
TREL_EXPORT std::int32_t SPSStartupOptionSInt32(const char* name, std::int32_t defaultValue);

/// The text of an option, without blanks around it if it stands in the options file. A null default is the empty text.
TREL_EXPORT std::string SPSStartupOptionText(const char* name, const char* defaultValue);

/// Sets an option for this process; a null value takes the setting back. Most options are read once, when what they
/// configure starts.
TREL_EXPORT void SPSSetStartupOption(const char* name, const char* value);
