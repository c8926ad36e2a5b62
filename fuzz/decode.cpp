#include "fuzz/FuzzInput.h"
#include "tools/trel/Commands.h"

#include <trel/host/Trel_CommandCatalogue.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

// `trel decode`, and `trel encode` with what it showed, which has to be decoded as that. Input: command; 1: legacy
// numbering, 2: reply, 4: with a revision, 8: no payload follows, but the argument that should tell it; revision;
// payload.

namespace {

using Json = nlohmann::ordered_json;

/// Null when the program refuses it.
Json Answer(void (*addCommand)(CLI::App& program, int& exitStatus), const char* name,
            std::vector<std::string> arguments, const std::vector<std::string>& more) {
  CLI::App program;
  int exitStatus = 0;
  addCommand(program, exitStatus);
  arguments.insert(arguments.begin(), name);
  arguments.insert(arguments.end(), more.begin(), more.end());
  std::reverse(arguments.begin(), arguments.end());
  std::ostringstream out;
  auto* const screen = std::cout.rdbuf(out.rdbuf());
  bool isRefused = false;
  try {
    program.parse(std::move(arguments));
  } catch (const std::runtime_error&) {
    isRefused = true;
  }
  std::cout.rdbuf(screen);
  return isRefused ? Json() : Json::parse(out.str(), nullptr, false);
}

std::string Hexadecimal(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) {
    text += "0123456789abcdef"[static_cast<unsigned char>(byte) >> 4U];
    text += "0123456789abcdef"[static_cast<unsigned char>(byte) & 15U];
  }
  return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::cerr.setstate(std::ios::failbit); // notes
  FuzzInput input(data, size);
  const auto commands = Trel_CommandCatalogue::Commands();
  const std::string name = commands[input.U8() % commands.size()]->identifiers.name;
  const std::uint8_t options = input.U8();
  const std::string revision = std::to_string(input.U8());
  std::vector<std::string> common = {name, "--json"};
  if ((options & 1U) != 0) {
    common.emplace_back("--legacy");
  }
  if ((options & 2U) != 0) {
    common.emplace_back("--reply");
  }
  if ((options & 4U) != 0) {
    common.insert(common.end(), {"--revision", revision});
  }
  const auto decode = [&common](const std::string& payload) {
    return Answer(&AddDecodeCommand, "decode", common, {payload})["fields"];
  };
  const auto recode = [&common, &decode](const Json& fields) {
    std::vector<std::string> assignments;
    for (const auto& [field, value] : fields.items()) {
      assignments.push_back(field + "=" + (value.is_string() ? value.get<std::string>() : value.dump()));
    }
    const Json encoded = Answer(&AddEncodeCommand, "encode", common, assignments);
    return encoded.is_object() ? decode(encoded["payload"].get<std::string>()) : Json();
  };
  const std::string rest = input.Bytes(size);
  const Json first = decode((options & 8U) != 0 ? rest : Hexadecimal(rest));
  if (!first.is_object()) {
    return 0;
  }
  // What was no text, and is shown as question marks, may not fit; what a class works out by itself is another value.
  const Json second = recode(first);
  if (second.is_object() ? recode(second) != second : first.dump().find("\ufffd") == std::string::npos) {
    throw std::logic_error("what was decoded cannot be encoded, or is decoded as something else then");
  }
  return 0;
}
