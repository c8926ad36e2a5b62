#pragma once

#include "tools/trel/common/Status_Snapshot.h"

#include <trel/Trel_ClockStatus.h>

#include <string>

/// What the library alone can tell of a node: clock, connected systems and those that have left, what was dropped.
/// The systems have no order, and what they have told the host is missing. Thread-safe, while the engine runs.
Status_Snapshot Status_OfEngine(const std::string& program, bool isMaster, const Trel_ClockStatus& clock);
