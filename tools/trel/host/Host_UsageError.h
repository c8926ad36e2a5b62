#pragma once

#include "tools/trel/host/Host_Error.h"

/// A command whose arguments are not as they have to be.
class Host_UsageError : public Host_Error {
public:
  using Host_Error::Host_Error;
};
