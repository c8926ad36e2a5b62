#pragma once

#include <trel/TCPE_Command.h>
#include <trel/Trel_Export.h>
#include <trel/Trel_Identifiers.h>

#include <cstdint>

struct Trel_CommandDescription;

/// Base of all link commands: numbering, validation, handler and data tables, factory.
///
/// The static operations may be called from any thread. None blocks, allocates or takes a lock, but for the first
/// command of a process, or after Terminate, that is constructed: it makes the engine object (Trel_CommManager).
/// Handlers are registered before the engine is initialised, and the numbering must not change while one is registered
/// (see TCPE_CommManager::SetSupportsMarlo11). No operation needs the engine to be initialised.
class TREL_EXPORT Trel_Command : public TCPE_Command {
public:
  /// Handles one received command; runs on a handler thread of the engine, or on the host's own when it pumps. What it
  /// throws goes no further and is reported (see TCPE_CommManager). The command is gone when it returns.
  using DoItProc = void (*)(TCPE_Command* command);

  /// Slots of both tables: types 0..80 in the current numbering, -6..76 (plus 6) in the legacy one.
  static constexpr std::int32_t kNumberOfSlots = 83;
  /// Bytes of a block in which any received command can be built.
  static constexpr std::uint32_t kMaxCommandSize = 616;

  /// `revision` is the payload revision of the class.
  Trel_Command(Trel_eCmd identifier, std::uint8_t revision);
  Trel_Command(const Trel_Command& other);
  Trel_Command& operator=(const Trel_Command& other);
  ~Trel_Command() override;

  const char* GetCommandName() const override;
  /// 81 in the current numbering, 77 in the legacy one.
  std::int32_t GetMaxNumberCommands() const override;
  /// The handler registered for an identifier, which is taken as it is, without translation; one out of range reads the
  /// slot of identifier 0.
  virtual DoItProc GetDoItCommand(Trel_eCmd identifier) const;
  /// The datum in the slot of this command's own type; a type out of range reads the slot of identifier 0.
  virtual void* GetAppDataPtr() const;
  /// What the class is, field by field; null in the base.
  virtual const Trel_CommandDescription* GetDescription() const;

  /// The class's identifier in the numbering in force; 0 in the base.
  static Trel_eCmd GetCommandID() { return eTrel_Cmd_Invalid; }

  /// Translates a link identifier to the engine type that travels, and back. Both are the identity in the current
  /// numbering; in the legacy one the engine's own commands are negative engine types.
  static TCPE_eCmd GetTCPECommandType(std::int32_t identifier);
  static std::int32_t GetCompatibleID(TCPE_eCmd type);
  /// Replaces a type outside the numbering in force by 0.
  static void ValidateCommand(TCPE_eCmd* type);
  static std::uint8_t GetCurrentProtocolMajorVersion();
  static std::uint8_t GetCurrentProtocolMinorVersion();
  static std::uint32_t GetMaxCommandSize();

  /// Calls the handler registered for the command's type; without one, and for null, nothing happens.
  static void DoIt(TCPE_Command* command);
  /// Whether DoIt would find a handler.
  static bool HasHandler(const TCPE_Command* command);
  /// Registers a handler, or removes it with null. The identifier is one of the numbering in force, as the class's
  /// GetCommandID() gives it: `eTrel_Cmd_<Name>` is right in the current numbering alone. One out of range is ignored
  /// on purpose: no such command is ever received (ConnectionFailed in the current numbering).
  static void SetDoItCommand(std::int32_t identifier, DoItProc handler);
  /// Stores a datum for a command, by an identifier of the numbering in force, which is not translated: in the legacy
  /// one the commands of the engine (1, 2, 3, 18, 19, 27) do not find it. Out of range is ignored on purpose.
  static void SetAppDataPtr(std::int32_t identifier, void* datum);

  /// Builds the command class of an identifier of the numbering in force in `block`, which is aligned for any type and
  /// at least GetMaxCommandSize() bytes long. Returns null for a null block or an identifier without a class.
  static TCPE_Command* Construct(std::int32_t identifier, void* block);

  // Written through the operations above; each slot is accessed atomically.
  static DoItProc mDoItProcPtrArray[kNumberOfSlots];
  static void* mAppDataPtrArray[kNumberOfSlots];
  static std::uint32_t mMaxCommandSize;

protected:
  static bool IsCurrentNumbering();
};
