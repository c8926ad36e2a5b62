#pragma once

struct Status_Snapshot;

/// Fills in what follows from the rest: whether the system, on a master the link, is in sync, and why or why not.
void Status_Judge(Status_Snapshot& snapshot);
