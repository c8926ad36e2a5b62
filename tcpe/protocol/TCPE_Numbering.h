#pragma once

#include <trel/TCPE_Types.h>

/// Wire types of the engine's own commands.
struct TCPE_EngineTypes {
  TCPE_eCmd discoveryRequest;
  TCPE_eCmd discoverMasterSystems;
  TCPE_eCmd connect;
  TCPE_eCmd disconnect;
  TCPE_eCmd authenticationChallenge;
};

inline constexpr TCPE_EngineTypes kTCPE_CurrentTypes{2, 3, 5, 12, 4};
inline constexpr TCPE_EngineTypes kTCPE_LegacyTypes{-2, -3, -4, -5, -6};

/// What becomes the type of a synchronous command that got no valid reply; never travels.
inline constexpr TCPE_eCmd kTCPE_CurrentErrorIdentifier = -1;
inline constexpr TCPE_eCmd kTCPE_LegacyErrorIdentifier = 1;

/// Type of the frame that every receiver drops: the heartbeat, and the probe when a reply is wanted.
inline constexpr TCPE_eCmd kTCPE_HeartbeatType = 0;
