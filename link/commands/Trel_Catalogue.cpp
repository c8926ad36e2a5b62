#include "link/commands/Trel_Catalogue.h"

#include <trel/TCPE_CommManager.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_Cmd_Control.h>
#include <trel/Trel_Cmd_Dialogs.h>
#include <trel/Trel_Cmd_Grouping.h>
#include <trel/Trel_Cmd_Identity.h>
#include <trel/Trel_Cmd_Project.h>
#include <trel/Trel_Cmd_Selection.h>
#include <trel/Trel_Cmd_State.h>
#include <trel/Trel_Cmd_Transport.h>
#include <trel/Trel_Cmd_Video.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <new>
#include <tuple>

namespace {

constexpr bool IdentifiersAreUnique(Trel_eCmd Trel_CommandIdentifiers::*numbering) {
  std::array<std::int32_t, kTrel_CommandTable.size()> identifiers{};
  std::transform(kTrel_CommandTable.begin(), kTrel_CommandTable.end(), identifiers.begin(),
                 [&](const Trel_CommandIdentifiers& row) { return row.*numbering; });
  std::sort(identifiers.begin(), identifiers.end());
  return std::adjacent_find(identifiers.begin(), identifiers.end()) == identifiers.end();
}
static_assert(IdentifiersAreUnique(&Trel_CommandIdentifiers::current));
static_assert(IdentifiersAreUnique(&Trel_CommandIdentifiers::legacy));

template <class Command>
TCPE_Command* ConstructIn(void* block) {
  static_assert(sizeof(Command) <= Trel_Command::kMaxCommandSize);
  static_assert(alignof(Command) <= alignof(std::max_align_t));
  return new (block) Command();
}

template <class Command>
std::unique_ptr<Trel_Command> Create() {
  return std::make_unique<Command>();
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

std::span<const Trel_CommandClass> Trel_Catalogue::Classes() {
  static const std::array classes{
#define TREL_ROW(Name, Current, Legacy)                                                                                \
  Trel_CommandClass{&Trel_Cmd_##Name::Describe(), &ConstructIn<Trel_Cmd_##Name>, &Create<Trel_Cmd_##Name>},
      TREL_COMMAND_TABLE(TREL_ROW)
#undef TREL_ROW
  };
  static_assert(std::tuple_size_v<decltype(classes)> == kTrel_CommandTable.size());
  return classes;
}

const Trel_CommandClass* Trel_Catalogue::Find(std::int32_t identifier) {
  static const ClassTable current = MakeTable(&Trel_CommandIdentifiers::current);
  static const ClassTable legacy = MakeTable(&Trel_CommandIdentifiers::legacy);
  const ClassTable& table = TCPE_CommManager::GetSupportsMarlo11() ? current : legacy;
  return identifier >= 0 && static_cast<std::size_t>(identifier) < table.size()
             ? table[static_cast<std::size_t>(identifier)]
             : nullptr;
}
