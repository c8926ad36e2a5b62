#pragma once

#include <trel/Trel_System.h>

#include <cstdint>
#include <vector>

/// The commands with which the link is built and kept. Those whose operation of the messenger leaves a field unset that
/// travels, or does not tell what became of the command, are built here. Not initialised or not connected, nothing is
/// sent. Thread-safe.
class Trel_LinkCommands {
public:
  static void SetOrderNumber(std::uint32_t address, const Trel_System& system);
  static void ListSystems(std::uint32_t address, const std::vector<Trel_System>& systems);
  static void ConnectTo(std::uint32_t address, const Trel_System& system);
  static void DisconnectFrom(std::uint32_t address, const Trel_System& system);
  /// From the local system.
  static void DoConnectTo(std::uint32_t address, std::int32_t uniqueID);
  static void DoConnectToComplete(std::uint32_t address, bool success);
  static void AllConnectionsComplete(std::uint32_t address);

  // These wait; false without a valid reply.
  static bool ConnectComplete(std::uint32_t address);
  static bool SystemInControl(std::uint32_t address, const Trel_System& holder);
  enum class Reply : std::uint8_t { yes, no, none };
  static Reply RequestControl(std::uint32_t address);

  /// The record of this system, with its address and the protocol that it speaks.
  static Trel_System LocalSystem();
};
