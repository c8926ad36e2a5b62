#pragma once

#include <trel/Trel_Export.h>

#include <string>
#include <string_view>

/// A text from elsewhere (a name or message of another system) for a log or a display. What might steer a terminal or
/// begin a line that looks like one's own becomes a question mark: each control character, each that turns the
/// direction of a line, breaks it or hides in it, and each byte that is no UTF-8.
///
/// Thread-safe. Not real-time-safe: the text may allocate.
TREL_EXPORT std::string Cmn_Printable(std::string_view text);
