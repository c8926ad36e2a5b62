#include "link/commands/Trel_Catalogue.h"

#include <trel/TCPE_CommManager.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_Cmd_State.h>
#include <trel/Trel_Cmd_Transport.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <new>

namespace {

template <class... Commands>
struct ClassList {
  static constexpr std::size_t kSize = sizeof...(Commands);
};

using AllClasses =
    ClassList<Trel_Cmd_Connect, Trel_Cmd_ConnectComplete, Trel_Cmd_Disconnect, Trel_Cmd_Prime, Trel_Cmd_SyncClock,
              Trel_Cmd_StartPlayback, Trel_Cmd_StopPlayback, Trel_Cmd_GetStartDelay, Trel_Cmd_UpdateRunningTime,
              Trel_Cmd_LastUpdateRunningTimeValid, Trel_Cmd_FrameEdgeInRunningTime, Trel_Cmd_ResetClock,
              Trel_Cmd_ReportPlayStartData, Trel_Cmd_SendState, Trel_Cmd_ClockLockState, Trel_Cmd_GetCurrentRunningTime,
              Trel_Cmd_GetFrameEdgeInRunningTime, Trel_Cmd_TestRunningTime, Trel_Cmd_GetPlayRange,
              Trel_Cmd_RequestSupplyMasterClock, Trel_Cmd_UpdateMasterClockSource,
              Trel_Cmd_GetPositionRunningTimeCorrelation, Trel_Cmd_LockPlaybackToSystem, Trel_Cmd_GetState,
              Trel_Cmd_RequestMaxSatellites, Trel_Cmd_GetMaxSatellites, Trel_Cmd_GetMaxSatellitesSupported,
              Trel_Cmd_RequestSupplyMasterClockComplete, Trel_Cmd_GetIsMasterClock>;

template <class Command>
TCPE_Command* ConstructIn(void* block) {
  static_assert(sizeof(Command) <= Trel_Command::kMaxCommandSize);
  static_assert(alignof(Command) <= alignof(std::max_align_t));
  return new (block) Command();
}

template <class... Commands>
constexpr bool IdentifiersAreUnique(ClassList<Commands...> /*list*/) {
  std::array current{Commands::kIdentifiers.current...};
  std::array legacy{Commands::kIdentifiers.legacy...};
  std::sort(current.begin(), current.end());
  std::sort(legacy.begin(), legacy.end());
  return std::adjacent_find(current.begin(), current.end()) == current.end() &&
         std::adjacent_find(legacy.begin(), legacy.end()) == legacy.end();
}
static_assert(IdentifiersAreUnique(AllClasses()));

template <class... Commands>
std::span<const Trel_CommandClass> ClassesOf(ClassList<Commands...> /*list*/) {
  static const std::array<Trel_CommandClass, sizeof...(Commands)> classes{
      Trel_CommandClass{&Commands::Describe(), &ConstructIn<Commands>}...};
  return classes;
}

/// Classes by identifier. Beyond it lies ConnectionFailed's current identifier alone, which is never received.
using ClassTable = std::array<const Trel_CommandClass*, 81>;

ClassTable MakeTable(Trel_eCmd Trel_CommandIdentifiers::*numbering) {
  ClassTable table{};
  for (const Trel_CommandClass& commandClass : Trel_Catalogue::Classes()) {
    const auto identifier = static_cast<std::size_t>(commandClass.description->identifiers.*numbering);
    if (identifier < table.size()) {
      table[identifier] = &commandClass;
    }
  }
  return table;
}

} // namespace

std::span<const Trel_CommandClass> Trel_Catalogue::Classes() { return ClassesOf(AllClasses()); }

const Trel_CommandClass* Trel_Catalogue::Find(std::int32_t identifier) {
  static const ClassTable current = MakeTable(&Trel_CommandIdentifiers::current);
  static const ClassTable legacy = MakeTable(&Trel_CommandIdentifiers::legacy);
  const ClassTable& table = TCPE_CommManager::GetSupportsMarlo11() ? current : legacy;
  return identifier >= 0 && static_cast<std::size_t>(identifier) < table.size()
             ? table[static_cast<std::size_t>(identifier)]
             : nullptr;
}
