#include <trel/host/Trel_CommandCatalogue.h>

#include "link/commands/Trel_Catalogue.h"

#include <algorithm>

namespace {

bool HasField(const Trel_Command& command, const Trel_FieldDescription& field) {
  const auto isField = [&](const Trel_FieldDescription& own) { return &own == &field; };
  const Trel_CommandDescription* const description = command.GetDescription();
  return description != nullptr && (std::any_of(description->command.begin(), description->command.end(), isField) ||
                                    std::any_of(description->reply.begin(), description->reply.end(), isField));
}

} // namespace

std::span<const Trel_CommandDescription* const> Trel_CommandCatalogue::Commands() {
  static const std::vector<const Trel_CommandDescription*> commands = [] {
    std::vector<const Trel_CommandDescription*> all;
    for (const Trel_CommandClass& commandClass : Trel_Catalogue::Classes()) {
      all.push_back(commandClass.description);
    }
    return all;
  }();
  return commands;
}

const Trel_CommandDescription* Trel_CommandCatalogue::Find(std::string_view name) {
  const auto commands = Commands();
  const auto found = std::find_if(commands.begin(), commands.end(), [&](const Trel_CommandDescription* description) {
    return description->identifiers.name == name;
  });
  return found != commands.end() ? *found : nullptr;
}

std::unique_ptr<Trel_Command> Trel_CommandCatalogue::Construct(const Trel_CommandDescription& description) {
  for (const Trel_CommandClass& commandClass : Trel_Catalogue::Classes()) {
    if (commandClass.description == &description) {
      return commandClass.create();
    }
  }
  return nullptr;
}

std::vector<Trel_CommandCatalogue::Place> Trel_CommandCatalogue::Layout(std::span<const Trel_FieldDescription> fields,
                                                                        Trel_Numbering numbering) {
  std::vector<Place> places;
  std::uint32_t offset = 0;
  for (const Trel_FieldDescription& field : fields) {
    if (field.numbering == Trel_Numbering::both || field.numbering == numbering) {
      places.push_back({&field, offset});
      offset += field.width;
    }
  }
  return places;
}

std::optional<Trel_FieldValue> Trel_CommandCatalogue::GetField(const Trel_Command& command,
                                                               const Trel_FieldDescription& field) {
  if (!HasField(command, field)) {
    return std::nullopt;
  }
  return field.access.get(command, field.element);
}

bool Trel_CommandCatalogue::SetField(Trel_Command& command, const Trel_FieldDescription& field,
                                     const Trel_FieldValue& value) {
  return HasField(command, field) && field.access.set(command, field.element, value);
}
