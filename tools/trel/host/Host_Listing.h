#pragma once

#include "tools/trel/host/Host_Console.h"

class Host_Session;

/// The answers to "systems" and "state": who is there, and how this system stands.
Host_Console::Answer Host_ListSystems(const Host_Session& session);
Host_Console::Answer Host_ShowState(const Host_Session& session);
