#pragma once

#include "Status_Snapshot.h"

class Host_Clock;
class Host_Link;
class Host_State;
class Host_Transport;

/// All that a host tells those who watch it. Thread-safe, while the engine runs.
Status_Snapshot Host_Status(const Host_Link& link, const Host_State& state, const Host_Clock& clock,
                            const Host_Transport& transport);
