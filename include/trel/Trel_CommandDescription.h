#pragma once

#include <trel/Trel_DescribedCommand.h>
#include <trel/Trel_FieldValue.h>

#include <cstddef>
#include <cstdint>
#include <span>

/// How to reach a field in a command of its class. Nothing is checked here: see Trel_CommandCatalogue.
struct Trel_FieldAccess {
  Trel_FieldValue (*get)(const Trel_Command& command, std::size_t element) = nullptr;
  bool (*set)(Trel_Command& command, std::size_t element, const Trel_FieldValue& value) = nullptr;
};

/// One field of a payload, for whoever lists, prints or dissects commands.
struct Trel_FieldDescription {
  char name[32]; ///< the elements of an array are fields of their own, with their index behind the name
  Trel_FieldKind kind;
  std::uint16_t width; ///< bytes on the wire; 0 when it varies
  Trel_Numbering numbering;
  std::uint8_t since; ///< least payload revision that carries the field
  const char* meaning;
  Trel_FieldAccess access; ///< null for a field of a list's entry
  std::size_t element;     ///< index in the array that the field belongs to
  /// Names of an enumeration's values, by value, with null where there is none; null for other fields.
  std::span<const char* const> (*displayStrings)();
  /// What one entry of a list is made of, in wire order. A list is a count, i32, and that many entries.
  const Trel_FieldDescription* entry;
  std::size_t entryFields;
};

/// A command class as it is compiled in.
struct Trel_CommandDescription {
  Trel_CommandIdentifiers identifiers;
  Trel_CommandTraits traits;
  std::span<const Trel_FieldDescription> command; ///< fields in wire order
  std::span<const Trel_FieldDescription> reply;
};
