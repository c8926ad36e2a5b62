#include <trel/TCPE_CommManager.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_Command.h>

#include "foundation/Cmn_HostCall.h"
#include "link/commands/Trel_Catalogue.h"

#include <atomic>
#include <iterator>
#include <optional>

namespace {

/// Types that the numbering in force knows, and where the first of them stands in the slots.
struct TypeRange {
  std::int32_t first;
  std::int32_t last;

  static TypeRange InForce() { return TCPE_CommManager::GetSupportsMarlo11() ? TypeRange{0, 80} : TypeRange{-6, 76}; }
  bool Contains(std::int32_t type) const { return first <= type && type <= last; }
  std::int32_t Slot(std::int32_t type) const { return type - first; }
  std::int32_t SlotOrInvalid(std::int32_t type) const { return Slot(Contains(type) ? type : 0); }
};

template <class Pointer>
Pointer Load(Pointer& slot) {
  return std::atomic_ref<Pointer>(slot).load(std::memory_order_acquire);
}

template <class Pointer>
Pointer Exchange(Pointer& slot, Pointer value) {
  return std::atomic_ref<Pointer>(slot).exchange(value, std::memory_order_acq_rel);
}

Trel_Command::DoItProc FindHandler(const TCPE_Command* command) {
  if (command == nullptr) {
    return nullptr;
  }
  const std::int32_t type = Trel_Command::GetTCPECommandType(command->GetCommandType());
  const TypeRange range = TypeRange::InForce();
  return range.Contains(type) ? Load(Trel_Command::mDoItProcPtrArray[range.Slot(type)]) : nullptr;
}

/// Link identifiers that stand for the engine's own commands in the legacy numbering; the engine type of the n-th is
/// -n-1.
constexpr std::int32_t kLegacyEngineIdentifiers[] = {1, 2, 3, 18, 19, 27};

} // namespace

Trel_Command::DoItProc Trel_Command::mDoItProcPtrArray[kNumberOfSlots] = {};
void* Trel_Command::mAppDataPtrArray[kNumberOfSlots] = {};
std::uint32_t Trel_Command::mMaxCommandSize = 0;

Trel_Command::Trel_Command(Trel_eCmd identifier, std::uint8_t revision)
    : TCPE_Command(Trel_CommManager::GetLocalSystem(), identifier, revision) {}

Trel_Command::Trel_Command(const Trel_Command& other) = default;

Trel_Command& Trel_Command::operator=(const Trel_Command& other) = default;

Trel_Command::~Trel_Command() = default;

const char* Trel_Command::GetCommandName() const { return "Trel_Command base class"; }

std::int32_t Trel_Command::GetMaxNumberCommands() const { return TypeRange::InForce().last + 1; }

Trel_Command::DoItProc Trel_Command::GetDoItCommand(Trel_eCmd identifier) const {
  return Load(mDoItProcPtrArray[TypeRange::InForce().SlotOrInvalid(identifier)]);
}

void* Trel_Command::GetAppDataPtr() const {
  return Load(mAppDataPtrArray[TypeRange::InForce().SlotOrInvalid(GetCommandType())]);
}

const Trel_CommandDescription* Trel_Command::GetDescription() const { return nullptr; }

TCPE_eCmd Trel_Command::GetTCPECommandType(std::int32_t identifier) {
  if (!IsCurrentNumbering()) {
    TCPE_eCmd type = 0;
    for (const std::int32_t own : kLegacyEngineIdentifiers) {
      --type;
      if (identifier == own) {
        return type;
      }
    }
  }
  return identifier;
}

std::int32_t Trel_Command::GetCompatibleID(TCPE_eCmd type) {
  const bool isEngineType = type < 0 && type >= -static_cast<std::int32_t>(std::size(kLegacyEngineIdentifiers));
  return isEngineType && !IsCurrentNumbering() ? kLegacyEngineIdentifiers[-type - 1] : type;
}

void Trel_Command::ValidateCommand(TCPE_eCmd* type) {
  if (!TypeRange::InForce().Contains(*type)) {
    *type = GetInvalidCommandID();
  }
}

std::uint8_t Trel_Command::GetCurrentProtocolMajorVersion() { return IsCurrentNumbering() ? 4 : 3; }

std::uint8_t Trel_Command::GetCurrentProtocolMinorVersion() { return 1; }

std::uint32_t Trel_Command::GetMaxCommandSize() {
  const std::atomic_ref<std::uint32_t> size(mMaxCommandSize);
  if (size.load(std::memory_order_relaxed) == 0) {
    size.store(kMaxCommandSize, std::memory_order_relaxed);
  }
  return size.load(std::memory_order_relaxed);
}

void Trel_Command::DoIt(TCPE_Command* command) {
  if (const DoItProc handler = FindHandler(command)) {
    if (!Cmn_HostCall::Run(Cmn_HostCall::Kind::handler, [&] { handler(command); })) {
      command->SetError(eTCPE_CommErr_HandlerFailed); // its sender is told
    }
  }
}

bool Trel_Command::HasHandler(const TCPE_Command* command) { return FindHandler(command) != nullptr; }

void Trel_Command::SetDoItCommand(std::int32_t identifier, DoItProc handler) {
  // Every registered handler holds the numbering: its slot means another command in the other one. Held already while
  // the slot is looked for.
  TCPE_CommManager::HoldNumbering();
  bool isRegistered = false;
  const std::int32_t type = GetTCPECommandType(identifier);
  if (const TypeRange range = TypeRange::InForce(); range.Contains(type)) {
    if (Exchange(mDoItProcPtrArray[range.Slot(type)], handler) != nullptr) {
      TCPE_CommManager::ReleaseNumbering();
    }
    isRegistered = handler != nullptr;
  }
  if (!isRegistered) {
    TCPE_CommManager::ReleaseNumbering();
  }
}

void Trel_Command::SetAppDataPtr(std::int32_t identifier, void* datum) {
  const TypeRange range = TypeRange::InForce();
  if (range.Contains(identifier)) {
    Exchange(mAppDataPtrArray[range.Slot(identifier)], datum);
  }
}

TCPE_Command* Trel_Command::Construct(std::int32_t identifier, void* block) {
  const Trel_CommandClass* commandClass = Trel_Catalogue::Find(identifier);
  if (commandClass == nullptr || block == nullptr) {
    return nullptr;
  }
  TCPE_Command* command = commandClass->construct(block);
  command->SetSelf(command);
  return command;
}

bool Trel_Command::IsCurrentNumbering() { return TCPE_CommManager::GetSupportsMarlo11(); }
