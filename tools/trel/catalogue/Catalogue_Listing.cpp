#include "tools/trel/catalogue/Catalogue_Listing.h"

#include "tools/trel/catalogue/Catalogue_Names.h"
#include "tools/trel/catalogue/Catalogue_Values.h"

#include <trel/host/Trel_CommandCatalogue.h>

#include <nlohmann/json.hpp>

#include <iomanip>
#include <span>
#include <string>

using Json = nlohmann::ordered_json;

namespace {

using Fields = std::span<const Trel_FieldDescription>;

std::int32_t IdentifierIn(Trel_Numbering numbering, const Trel_CommandDescription& command) {
  return numbering == Trel_Numbering::legacy ? command.identifiers.legacy : command.identifiers.current;
}

std::string TraitsOf(const Trel_CommandDescription& command) {
  const auto& traits = command.traits;
  std::string text;
  const auto add = [&text](bool isSo, const std::string& trait) {
    text += isSo ? (text.empty() ? "" : ", ") + trait : "";
  };
  add(traits.synchronous, "synchronous");
  add(!traits.logged, "not logged");
  add(traits.revision != 0, "revision " + std::to_string(traits.revision));
  add(traits.currentOnly, "current numbering only");
  return text;
}

void PrintFields(std::ostream& out, const char* payload, Fields fields, Trel_Numbering numbering) {
  for (const auto& [field, offset] : Trel_CommandCatalogue::Layout(fields, numbering)) {
    out << std::right << std::setw(20) << payload << std::setw(5) << offset << "  " << std::left << std::setw(26)
        << field->name << std::setw(7) << KindName(field->kind) << std::right << std::setw(3)
        << (field->width != 0 ? std::to_string(field->width) : "");
    out << "  " << field->meaning;
    if (field->since != 0) {
      out << "; since revision " << +field->since;
    }
    out << '\n';
  }
}

Json FieldsJson(Fields fields, Trel_Numbering numbering) {
  Json json = Json::array();
  for (const auto& [field, offset] : Trel_CommandCatalogue::Layout(fields, numbering)) {
    json.push_back({{"name", field->name},
                    {"kind", KindName(field->kind)},
                    {"width", field->width},
                    {"offset", offset},
                    {"since", field->since}});
  }
  return json;
}

/// Where a field stands in a numbering, or nothing.
std::string OffsetIn(Trel_Numbering numbering, Fields fields, const Trel_FieldDescription& field) {
  for (const auto& place : Trel_CommandCatalogue::Layout(fields, numbering)) {
    if (place.field == &field) {
      return std::to_string(place.offset);
    }
  }
  return "";
}

std::string WidthText(const Trel_FieldDescription& field) {
  if (field.kind != Trel_FieldKind::list) {
    return std::to_string(field.width);
  }
  std::uint32_t entry = 0;
  for (const Trel_FieldDescription& part : EntryOf(field)) {
    entry += part.width;
  }
  return "4, and " + std::to_string(entry) + " each";
}

void PrintMarkdownRows(std::ostream& out, const std::string& payload, Fields fields) {
  for (const Trel_FieldDescription& field : fields) {
    out << "| " << payload << " | " << field.name << " | " << KindName(field.kind) << " | " << WidthText(field) << " | "
        << OffsetIn(Trel_Numbering::current, fields, field) << " | " << OffsetIn(Trel_Numbering::legacy, fields, field)
        << " | " << (field.since != 0 ? std::to_string(field.since) : "") << " | " << field.meaning << " |\n";
    if (field.kind == Trel_FieldKind::list) {
      PrintMarkdownRows(out, std::string("entry of ") + field.name, EntryOf(field));
    }
  }
}

} // namespace

void PrintCatalogue(std::ostream& out, Trel_Numbering numbering) {
  const bool isLegacy = numbering == Trel_Numbering::legacy;
  const Trel_Numbering other = isLegacy ? Trel_Numbering::current : Trel_Numbering::legacy;
  out << "   id" << std::setw(9) << (isLegacy ? "current" : "legacy") << "  command\n"
      << "             payload  at  field                     kind   bytes\n";
  for (const Trel_CommandDescription* const command : Trel_CommandCatalogue::Commands()) {
    const std::string traits = TraitsOf(*command);
    out << std::right << std::setw(5) << IdentifierIn(numbering, *command) << std::setw(9)
        << IdentifierIn(other, *command) << "  " << command->identifiers.name
        << (traits.empty() ? "" : " (" + traits + ")") << '\n';
    PrintFields(out, "command", command->command, numbering);
    PrintFields(out, "reply", command->reply, numbering);
  }
}

void PrintCatalogueJson(std::ostream& out, Trel_Numbering numbering) {
  Json json = Json::array();
  for (const Trel_CommandDescription* const command : Trel_CommandCatalogue::Commands()) {
    const auto& identifiers = command->identifiers;
    json.push_back({{"id", IdentifierIn(numbering, *command)},
                    {"current", identifiers.current},
                    {"legacy", identifiers.legacy},
                    {"name", identifiers.name},
                    {"class", std::string("Trel_Cmd_") + identifiers.name},
                    {"synchronous", command->traits.synchronous},
                    {"logged", command->traits.logged},
                    {"revision", command->traits.revision},
                    {"command", FieldsJson(command->command, numbering)},
                    {"reply", FieldsJson(command->reply, numbering)}});
  }
  out << json.dump(2) << '\n';
}

void PrintCatalogueMarkdown(std::ostream& out) {
  out << "# Commands\n"
         "\n"
         "Every command of the link as it is compiled in: identifiers in both numberings, fields in wire order. How "
         "the\n"
         "kinds are encoded stands in [protocol.md](protocol.md). The build target `protocol-page` writes this page; "
         "do\n"
         "not change it by hand.\n"
         "\n"
         "The sender of a synchronous command waits for the reply. The payload revision is that of the frames in "
         "which\n"
         "a class is sent, command or reply.\n"
         "\n"
         "| current | legacy | command | class | synchronous | logged | revision | remark |\n"
         "|---|---|---|---|---|---|---|---|\n";
  for (const Trel_CommandDescription* const command : Trel_CommandCatalogue::Commands()) {
    const std::string name = command->identifiers.name;
    const auto& traits = command->traits;
    const bool hasFields = !command->command.empty() || !command->reply.empty();
    out << "| " << command->identifiers.current << " | " << command->identifiers.legacy << " | "
        << (hasFields ? "[" + name + "](#" + LowerCase(name) + ")" : name) << " | `Trel_Cmd_" << name << "` | "
        << (traits.synchronous ? "yes" : "no") << " | " << (traits.logged ? "yes" : "no") << " | " << +traits.revision
        << " | " << (traits.currentOnly ? "current numbering only" : "") << " |\n";
  }
  out << "\n"
         "In the tables below, *current* and *legacy* are the offset of a field in the payload of that numbering, in\n"
         "bytes; a field without one does not travel there. *Since* is the least payload revision that carries the\n"
         "field. A list is a count, i32, and that many entries; the offsets of an entry's fields count from its "
         "begin.\n";
  for (const Trel_CommandDescription* const command : Trel_CommandCatalogue::Commands()) {
    if (!command->command.empty() || !command->reply.empty()) {
      out << "\n## " << command->identifiers.name
          << "\n\n"
             "| payload | field | kind | bytes | current | legacy | since | meaning |\n"
             "|---|---|---|---|---|---|---|---|\n";
      PrintMarkdownRows(out, "command", command->command);
      PrintMarkdownRows(out, "reply", command->reply);
    }
  }
}
