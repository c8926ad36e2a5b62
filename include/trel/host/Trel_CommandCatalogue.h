#pragma once

#include <trel/Trel_Command.h>
#include <trel/Trel_CommandDescription.h>
#include <trel/Trel_Export.h>
#include <trel/Trel_FieldValue.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

/// All commands of the link, for whoever lists, prints, builds or dissects them without knowing their classes.
///
/// The catalogue is constant: any thread may ask at any time, and the engine need not be initialised. Commands are
/// plain values: one thread at a time may use one. The operations that return commands, places or values allocate.
class TREL_EXPORT Trel_CommandCatalogue {
public:
  Trel_CommandCatalogue() = delete;

  /// All commands, sorted by current identifier.
  static std::span<const Trel_CommandDescription* const> Commands();
  /// The command of a name as GetCommandName returns it ("Prime"), or null.
  static const Trel_CommandDescription* Find(std::string_view name);
  /// A command object in its initial state; null for a description from elsewhere. Unlike Trel_Command::Construct this
  /// knows every class in either numbering.
  static std::unique_ptr<Trel_Command> Construct(const Trel_CommandDescription& description);

  /// A field and its place in a payload.
  struct Place {
    const Trel_FieldDescription* field;
    std::uint32_t offset; ///< bytes from the begin of the payload; nothing follows a list
  };
  /// The fields of a payload, or of a list's entry, that travel in a numbering (current or legacy), in wire order.
  static std::vector<Place> Layout(std::span<const Trel_FieldDescription> fields, Trel_Numbering numbering);

  /// The value of a field; nothing when the command has no such field. The field stands in the description of the
  /// command's class.
  static std::optional<Trel_FieldValue> GetField(const Trel_Command& command, const Trel_FieldDescription& field);
  /// Sets a field by the rules of the class's own setter: a text that is too long is replaced or cut. False, and
  /// nothing has changed, when the command has no such field, or when the value is of another kind, out of the range of
  /// the field's width, or a text with a zero in it.
  static bool SetField(Trel_Command& command, const Trel_FieldDescription& field, const Trel_FieldValue& value);
};
