#pragma once

#include <trel/Trel_ClockStatus.h>

struct Status_Snapshot;

/// Fills in what follows from the rest: whether the system, on a master the link, is in sync, and why or why not.
/// @param clockState of this system; a master's does not matter
void Status_Judge(Status_Snapshot& snapshot, ETrel_ClockState clockState);
