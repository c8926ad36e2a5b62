#pragma once

#include "tools/trel/report/Report_Data.h"

#include <ostream>
#include <string>

/// Writes a report as one HTML page with everything in it: nothing is loaded, so it can be kept and sent.
///
/// The texts of the data may come from the network; on the page they are text and nothing else. A long recording is
/// thinned out so that the extremes stay.
void Report_WritePage(std::ostream& out, const Report_Data& data);
/// The same into a file; throws std::runtime_error when it cannot be written.
void Report_WritePageTo(const std::string& file, const Report_Data& data);
