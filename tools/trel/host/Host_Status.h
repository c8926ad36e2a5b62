#pragma once

#include "tools/trel/common/Status_Snapshot.h"

class Host_Session;

/// All that a host tells those who watch it. Thread-safe, while the engine runs.
Status_Snapshot Host_Status(const Host_Session& session);
