#pragma once

#include "tools/trel/common/EngineOptions.h"

#include <trel/Sys_Socket.h>

#include <cstdint>
#include <optional>
#include <string>

class Doctor_Findings;

/// What the doctor looks at, from the bottom up: adaptors, ports, broadcast, other systems, clock, load.
class Doctor_Checks {
public:
  /// The platform has been prepared.
  Doctor_Checks(const EngineOptions& options, Doctor_Findings& findings);

  void Run();

private:
  /// The adaptor that a host would use here; nothing when there is none.
  std::optional<Sys_Adaptor> CheckAdaptors();
  void CheckPorts(std::uint32_t address);
  void CheckBroadcast(const Sys_Adaptor& adaptor);
  void CheckSecret();
  void CheckSystems();
  /// Looks for systems that cannot link with this one, because they number commands otherwise.
  void CheckOtherNumbering();
  void CheckConnection(const std::string& name, std::uint32_t address);
  void CheckClock();
  void CheckLoad();

  EngineOptions mOptions;
  std::uint16_t mPort; // communication port of the systems; the engine here takes another one
  Doctor_Findings& mFindings;
};
