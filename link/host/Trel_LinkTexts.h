#pragma once

#include <trel/TCPE_Types.h>
#include <trel/host/Trel_LinkEvent.h>

#include <cstdint>
#include <string>
#include <vector>

/// What a session says to the user. Thread-safe.
class Trel_LinkTexts {
public:
  /// The line of an event, on a master or on a satellite.
  static std::string Describe(const Trel_LinkEvent& event, bool isMaster);
  /// Why something is not done that the host wants. `holder` is who is in control.
  static std::string Describe(Trel_LinkRefusal refusal, const std::string& holder);

private:
  static std::string Name(const Trel_LinkEvent::System& system);
  static std::string Refusal(const Trel_LinkEvent& event, bool isMaster);
  static std::string Mesh(const Trel_LinkEvent& event, bool isMaster);
  static std::string Link(const Trel_LinkEvent& event, bool isMaster);
  static std::string Playing(const Trel_LinkEvent& event);
  static std::string StartFailed(const Trel_LinkEvent& event);
  static std::string Together(const Trel_StartOutcome& outcome, const std::vector<Trel_LinkEvent::System>& systems);
  static std::string State(const Trel_LinkEvent& event);
  static std::string Refused(const Trel_LinkEvent& event);
};
