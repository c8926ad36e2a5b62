#pragma once

#include <trel/Sys_Socket.h>
#include <trel/TCPE_Types.h>

#include <cstdint>
#include <string>
#include <vector>

/// The adaptor whose address a system is known by.
struct TCPE_AdaptorChoice {
  ETCPE_Status status = eTCPE_Status_NoAdaptor;
  std::string name{};
  std::uint32_t address = 0;
  /// Directed broadcast address; 0 when the adaptor has none.
  std::uint32_t broadcast = 0;
  /// What went wrong, or what else could have been chosen; empty when there is nothing to tell.
  std::string report;

  bool operator==(const TCPE_AdaptorChoice& other) const {
    return address == other.address && broadcast == other.broadcast;
  }

  /// The adaptor that is up and has the preferred address. With 0 the first that is up and can broadcast, else
  /// loopback.
  static TCPE_AdaptorChoice Make(std::uint32_t preferred, const std::vector<Sys_Adaptor>& adaptors);
  /// A choice to follow an earlier one: of several equally good adaptors it keeps the one in use.
  static TCPE_AdaptorChoice Follow(const TCPE_AdaptorChoice& inUse, std::uint32_t preferred,
                                   const std::vector<Sys_Adaptor>& adaptors);
};
