#pragma once

#include <stdexcept>

/// Why a command of the user was not carried out, in words that say what to do about it.
class Host_Error : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};
