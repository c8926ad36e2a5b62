#include "tools/trel/catalogue/Catalogue_Dissector.h"

#include "tools/trel/catalogue/Catalogue_Values.h"

#include <trel/TCPE_CommManager.h>
#include <trel/TCPE_ErrorText.h>
#include <trel/host/Trel_CommandCatalogue.h>

#include <cstddef>
#include <cstdint>
#include <iomanip>
#include <span>
#include <string>
#include <string_view>

/// Dissector.lua; the build makes a source of it.
extern const char* const kDissectorTemplate;

namespace {

using Fields = std::span<const Trel_FieldDescription>;

/// The command type that travels for a link identifier of the legacy numbering.
std::int32_t LegacyType(std::int32_t identifier) {
  const bool before = TCPE_CommManager::GetSupportsMarlo11();
  TCPE_CommManager::SetSupportsMarlo11(false);
  const std::int32_t type = Trel_Command::GetTCPECommandType(identifier);
  TCPE_CommManager::SetSupportsMarlo11(before);
  return type;
}

void PrintFields(std::ostream& out, Fields fields, const std::string& indentation);

void PrintField(std::ostream& out, const Trel_FieldDescription& field, const std::string& indentation) {
  out << indentation << "{ name = " << std::quoted(field.name) << ", kind = \"" << KindName(field.kind)
      << "\", width = " << field.width << ", meaning = " << std::quoted(field.meaning);
  if (field.since != 0) {
    out << ", since = " << +field.since;
  }
  if (field.numbering != Trel_Numbering::both) {
    out << ", major = " << (field.numbering == Trel_Numbering::current ? "CURRENT" : "LEGACY");
  }
  if (field.displayStrings != nullptr) {
    out << ",\n" << indentation << "  values = {";
    std::size_t number = 0;
    for (const char* const name : field.displayStrings()) {
      if (name != nullptr) {
        out << " [" << number << "] = " << std::quoted(name) << ',';
      }
      ++number;
    }
    out << " }";
  }
  if (field.entry != nullptr) {
    out << ",\n" << indentation << "  entry = {\n";
    PrintFields(out, {field.entry, field.entryFields}, indentation + "    ");
    out << indentation << "  }";
  }
  out << " },\n";
}

void PrintFields(std::ostream& out, Fields fields, const std::string& indentation) {
  for (const Trel_FieldDescription& field : fields) {
    PrintField(out, field, indentation);
  }
}

void PrintPayload(std::ostream& out, const char* name, Fields fields) {
  out << "    " << name << " = {";
  if (!fields.empty()) {
    out << '\n';
    PrintFields(out, fields, "      ");
    out << "    ";
  }
  out << "},\n";
}

void PrintErrors(std::ostream& out) {
  for (std::uint16_t number = 0; number <= eTCPE_CommErr_HandlerFailed; ++number) {
    out << "  [" << number << "] = " << std::quoted(TCPE_ErrorText(static_cast<TCPE_CommErr>(number))) << ",\n";
  }
}

void PrintCommands(std::ostream& out) {
  for (const Trel_CommandDescription* const command : Trel_CommandCatalogue::Commands()) {
    const auto& identifiers = command->identifiers;
    out << "  {\n    name = " << std::quoted(identifiers.name) << ",\n    current = " << identifiers.current
        << ",\n    legacy = " << LegacyType(identifiers.legacy) << ",\n";
    PrintPayload(out, "command", command->command);
    PrintPayload(out, "reply", command->reply);
    out << "  },\n";
  }
}

} // namespace

void PrintDissector(std::ostream& out) {
  struct Part {
    std::string_view place;
    void (*print)(std::ostream& out);
  };
  constexpr Part kParts[] = {{"@ERRORS@", &PrintErrors}, {"@COMMANDS@", &PrintCommands}};
  std::string_view text = kDissectorTemplate;
  for (const Part& part : kParts) {
    const std::size_t place = text.find(part.place);
    out << text.substr(0, place);
    part.print(out);
    text.remove_prefix(place + part.place.size());
  }
  out << text;
}
