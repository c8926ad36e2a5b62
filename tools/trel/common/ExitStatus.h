#pragma once

/// What the program answers to its caller.
enum ExitStatus : int {
  kExitSuccess = 0,
  kExitFailure = 1,    ///< something did not happen; it is named in the output
  kExitUsage = 2,      ///< the command line is wrong; nothing was done
  kExitSignalled = 128 ///< plus the number of the signal that ended the work
};
