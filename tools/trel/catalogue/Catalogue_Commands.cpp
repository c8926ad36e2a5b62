#include "tools/trel/Commands.h"
#include "tools/trel/catalogue/Catalogue_Dissector.h"
#include "tools/trel/catalogue/Catalogue_Listing.h"
#include "tools/trel/catalogue/Catalogue_Payload.h"
#include "tools/trel/catalogue/Catalogue_Values.h"
#include "tools/trel/common/CommonOptions.h"
#include "tools/trel/common/ExitStatus.h"

#include <trel/TCPE_CommManager.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <cctype>
#include <charconv>
#include <iostream>
#include <memory>
#include <stdexcept>

namespace {

struct PayloadOptions {
  Catalogue_Payload::Options payload;
  std::vector<std::string> assignments; // of encode
  std::string hexadecimal;              // of decode
  bool isLegacy = false;
  bool isJson = false;
};

std::string ToHexadecimal(const std::string& bytes) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (const char byte : bytes) {
    text += kDigits[static_cast<unsigned char>(byte) >> 4U];
    text += kDigits[static_cast<unsigned char>(byte) & 0xfU];
  }
  return text;
}

std::string FromHexadecimal(const std::string& text) {
  std::string digits;
  for (const char letter : text) {
    if (std::isxdigit(static_cast<unsigned char>(letter)) != 0) {
      digits += letter;
    } else if (letter != ' ') {
      throw std::invalid_argument(std::string("'") + letter + "' is no hexadecimal digit");
    }
  }
  if (digits.size() % 2 != 0) {
    throw std::invalid_argument(std::to_string(digits.size()) + " hexadecimal digits; a byte has two");
  }
  std::string bytes;
  for (std::size_t digit = 0; digit < digits.size(); digit += 2) {
    unsigned byte = 0;
    std::from_chars(&digits[digit], &digits[digit] + 2, byte, 16);
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

void Encode(const PayloadOptions& options) {
  Catalogue_Payload payload(options.payload);
  for (const std::string& assignment : options.assignments) {
    payload.Assign(assignment);
  }
  const std::string bytes = payload.Encode();
  for (const std::string& note : payload.Notes(bytes)) {
    std::cerr << "note: " << note << '\n';
  }
  const std::string hexadecimal = ToHexadecimal(bytes);
  if (options.isJson) {
    auto json = payload.HeadJson();
    json["payload"] = hexadecimal;
    std::cout << JsonText(json) << '\n';
  } else {
    std::cout << hexadecimal << '\n';
  }
}

void Decode(const PayloadOptions& options) {
  Catalogue_Payload payload(options.payload);
  const std::string bytes = FromHexadecimal(options.hexadecimal);
  const std::size_t used = payload.Decode(bytes);
  const std::string leftOver = ToHexadecimal(bytes.substr(used));
  if (options.isJson) {
    auto json = payload.HeadJson();
    json["fields"] = payload.FieldsJson();
    json["left_over"] = leftOver;
    std::cout << JsonText(json) << '\n';
    return;
  }
  std::cout << payload.FieldsText();
  if (!leftOver.empty()) {
    std::cerr << "note: bytes left over from offset " << used << ": " << leftOver << '\n';
  }
}

CLI::App* AddPayloadCommand(CLI::App& program, int& exitStatus, const std::string& name, const std::string& description,
                            const std::shared_ptr<PayloadOptions>& options, void (*run)(const PayloadOptions&)) {
  CLI::App* const command = program.add_subcommand(name, description);
  command->add_option("NAME", options->payload.command, "Name of the command, as \"trel commands\" lists it")
      ->type_name("")
      ->required();
  command->add_flag("--legacy", options->isLegacy, "Use the legacy command numbering");
  command->add_flag("--reply", options->payload.isReply, "The payload of the reply, not of the command");
  command->add_flag("--json", options->isJson, "Answer in JSON");
  Limit(command
            ->add_option_function<int>(
                "--revision",
                [options](int revision) { options->payload.revision = static_cast<std::uint8_t>(revision); },
                "Payload revision of the sender, 0 to 255 [that of the command's class]")
            ->type_name("N"),
        0, 255);
  command->callback([options, run, &exitStatus] {
    TCPE_CommManager::SetSupportsMarlo11(!options->isLegacy);
    try {
      run(*options);
    } catch (const std::invalid_argument& error) {
      throw CLI::ValidationError(error.what());
    }
    exitStatus = kExitSuccess;
  });
  return command;
}

} // namespace

void AddCommandsCommand(CLI::App& program, int& exitStatus) {
  struct Options {
    bool isLegacy = false;
    bool isJson = false;
    bool isMarkdown = false;
    bool isDissector = false;
  };
  const auto options = std::make_shared<Options>();
  CLI::App* const commands = program.add_subcommand("commands", "Lists the commands that systems send each other");
  commands->add_flag("--legacy", options->isLegacy, "Use the legacy command numbering");
  CLI::Option* const json = commands->add_flag("--json", options->isJson, "Answer in JSON");
  CLI::Option* const markdown =
      commands->add_flag("--markdown", options->isMarkdown, "Write the page of the documentation, for both numberings")
          ->excludes(json);
  commands->add_flag("--dissector", options->isDissector, "Write the dissector for Wireshark, for both numberings")
      ->excludes(json)
      ->excludes(markdown);
  commands->footer("Identifiers and offsets are those of the numbering in force; fields that do not travel in it are\n"
                   "left out. The width of a list, and of its entries, is 0 in JSON: it is what the count says.");
  commands->callback([options, &exitStatus] {
    const auto numbering = options->isLegacy ? Trel_Numbering::legacy : Trel_Numbering::current;
    if (options->isDissector) {
      PrintDissector(std::cout);
    } else if (options->isMarkdown) {
      PrintCatalogueMarkdown(std::cout);
    } else if (options->isJson) {
      PrintCatalogueJson(std::cout, numbering);
    } else {
      PrintCatalogue(std::cout, numbering);
    }
    exitStatus = kExitSuccess;
  });
}

void AddEncodeCommand(CLI::App& program, int& exitStatus) {
  const auto options = std::make_shared<PayloadOptions>();
  CLI::App* const encode = AddPayloadCommand(program, exitStatus, "encode",
                                             "Writes the payload of a command in hexadecimal", options, &Encode);
  encode->add_option("FIELD=VALUE", options->assignments, "Values of fields; the others are 0, false or empty")
      ->type_name("");
  encode->footer(
      "Values: numbers, decimal or 0x...; for an enumeration also its display string, unless that looks like a\n"
      "number; true or false; addresses as 10.0.0.1; texts; for a list a JSON array of objects:\n"
      "  trel encode ListSystems 'Systems=[{\"IPAddress\": \"10.0.0.1\", \"SystemName\": \"Stage\"}]'\n"
      "With --revision, fields that the revision does not carry are left out. What a receiver will not find\n"
      "as it was given is noted on the error output.");
}

void AddDecodeCommand(CLI::App& program, int& exitStatus) {
  const auto options = std::make_shared<PayloadOptions>();
  CLI::App* const decode = AddPayloadCommand(program, exitStatus, "decode",
                                             "Reads the payload of a command as a receiver does", options, &Decode);
  decode->add_option("HEX", options->hexadecimal, "The bytes, two digits each; blanks may stand between them")
      ->type_name("");
  decode->footer(
      "A payload that is too short fails (exit status 1) with the offset of the first field that does not fit.\n"
      "Bytes left over are noted on the error output, in JSON as left_over. A field that the revision does\n"
      "not carry is shown as the receiver takes it then.");
}
