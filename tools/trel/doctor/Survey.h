#pragma once

#include <trel/Trel_System.h>

#include <map>

/// Asks the network who is there. The engine runs; each question takes a second and sets this system's role.
class Survey {
public:
  Survey() = delete;
  /// Systems by address, and whether they are available: a master has room, a satellite is not linked.
  using Systems = std::map<Trel_System, bool>;

  static Systems Masters();
  static Systems Satellites();
};
