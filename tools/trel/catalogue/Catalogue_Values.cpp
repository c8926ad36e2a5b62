#include "tools/trel/catalogue/Catalogue_Values.h"

#include "tools/trel/catalogue/Catalogue_Names.h"

#include <trel/Sys_Socket.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>
#include <optional>
#include <span>
#include <stdexcept>
#include <vector>

using Json = nlohmann::ordered_json;

namespace {

struct Range {
  std::int64_t least;
  std::int64_t most;

  template <class Number>
  static Range Of() {
    return {std::numeric_limits<Number>::min(), std::numeric_limits<Number>::max()};
  }
  std::string Text() const { return std::to_string(least) + " to " + std::to_string(most); }
};

Range RangeOf(Trel_FieldKind kind) {
  switch (kind) {
  case Trel_FieldKind::i32:
    return Range::Of<std::int32_t>();
  case Trel_FieldKind::u32:
  case Trel_FieldKind::ipv4:
    return Range::Of<std::uint32_t>();
  case Trel_FieldKind::u8:
    return Range::Of<std::uint8_t>();
  case Trel_FieldKind::port:
    return Range::Of<std::uint16_t>();
  default:
    return Range::Of<std::int64_t>();
  }
}

std::span<const char* const> DisplayStringsOf(const Trel_FieldDescription& field) {
  return field.displayStrings != nullptr ? field.displayStrings() : std::span<const char* const>();
}

/// The display string of an enumeration's value, or null.
const char* DisplayStringOf(const Trel_FieldDescription& field, const Trel_FieldValue& value) {
  const auto* const number = std::get_if<std::int64_t>(&value.value);
  const auto strings = DisplayStringsOf(field);
  return number != nullptr && *number >= 0 && static_cast<std::uint64_t>(*number) < strings.size()
             ? strings[static_cast<std::size_t>(*number)]
             : nullptr;
}

/// A display string that may stand for its number: "25" of a frame rate looks like another one.
bool IsName(const char* displayString) {
  const std::string text = displayString != nullptr ? displayString : "";
  return std::any_of(text.begin(), text.end(), [](unsigned char letter) { return std::isalpha(letter) != 0; });
}

[[noreturn]] void Reject(const Trel_FieldDescription& field, const std::string& value, const std::string& why) {
  throw std::invalid_argument(field.name + std::string("=") + value + ": " + why);
}

std::int64_t NumberFromName(const Trel_FieldDescription& field, const std::string& text) {
  const auto strings = DisplayStringsOf(field);
  std::vector<std::string> names;
  for (std::size_t number = 0; number < strings.size(); ++number) {
    if (IsName(strings[number])) {
      if (text == strings[number]) {
        return static_cast<std::int64_t>(number);
      }
      names.emplace_back(strings[number]);
    }
  }
  Reject(field, text,
         strings.empty() ? "no number"
                         : "no number and no name" + NearNamesText(text, names, " of " + NamedValuesText(field)));
}

std::int64_t NumberFromText(const Trel_FieldDescription& field, const std::string& text) {
  const bool isHexadecimal = text.starts_with("0x") && text.size() > 2;
  const char* const end = text.data() + text.size();
  std::int64_t number = 0;
  const auto [rest, error] =
      std::from_chars(text.data() + (isHexadecimal ? 2 : 0), end, number, isHexadecimal ? 16 : 10);
  if (rest != end || error == std::errc::invalid_argument) {
    return NumberFromName(field, text);
  }
  const Range range = RangeOf(field.kind);
  if (error != std::errc() || number < range.least || number > range.most) {
    Reject(field, text, "out of range, " + range.Text());
  }
  return number;
}

Trel_FieldValue ValueFromJson(const Trel_FieldDescription& field, const Json& json) {
  if (json.is_string()) {
    return ValueFromText(field, json.get<std::string>());
  }
  if (field.kind == Trel_FieldKind::string || field.kind == Trel_FieldKind::ipv4) {
    Reject(field, JsonText(json), "no text");
  }
  return ValueFromText(field, JsonText(json));
}

/// What a field has that is not named.
Trel_FieldValue InitialValue(const Trel_FieldDescription& field) {
  switch (field.kind) {
  case Trel_FieldKind::boolean:
    return {false};
  case Trel_FieldKind::string:
    return {std::string()};
  case Trel_FieldKind::list:
    return {Trel_FieldValue::List()};
  default:
    return {std::int64_t{0}};
  }
}

Trel_FieldValue::Record RecordFromJson(const Trel_FieldDescription& list, const Json& json) {
  if (!json.is_object()) {
    Reject(list, JsonText(json), "no JSON object");
  }
  Trel_FieldValue::Record record;
  std::vector<std::string> names;
  for (const Trel_FieldDescription& field : EntryOf(list)) {
    names.emplace_back(field.name);
    record.push_back(json.contains(field.name) ? ValueFromJson(field, json[field.name]) : InitialValue(field));
  }
  for (const auto& [name, value] : json.items()) {
    if (std::find(names.begin(), names.end(), name) == names.end()) {
      throw std::invalid_argument("an entry of " + std::string(list.name) + " has no field " + name +
                                  NearNamesText(name, names, "; its fields: " + Joined(names)));
    }
  }
  return record;
}

Trel_FieldValue ListFromText(const Trel_FieldDescription& field, const std::string& text) {
  const Json json = Json::parse(text, nullptr, false);
  if (!json.is_array()) {
    Reject(field, text, "no JSON array");
  }
  Trel_FieldValue::List list;
  for (const Json& entry : json) {
    list.push_back(RecordFromJson(field, entry));
  }
  return {list};
}

Json RecordToJson(const Trel_FieldDescription& list, const Trel_FieldValue::Record& record) {
  Json json = Json::object();
  auto value = record.begin();
  for (const Trel_FieldDescription& field : EntryOf(list)) {
    json[field.name] = ValueToJson(field, *value++);
  }
  return json;
}

} // namespace

std::span<const Trel_FieldDescription> EntryOf(const Trel_FieldDescription& list) {
  return {list.entry, list.entryFields};
}

const char* KindName(Trel_FieldKind kind) {
  switch (kind) {
  case Trel_FieldKind::i64:
    return "i64";
  case Trel_FieldKind::i32:
    return "i32";
  case Trel_FieldKind::u32:
    return "u32";
  case Trel_FieldKind::u8:
    return "u8";
  case Trel_FieldKind::boolean:
    return "bool";
  case Trel_FieldKind::ipv4:
    return "ipv4";
  case Trel_FieldKind::port:
    return "port";
  case Trel_FieldKind::string:
    return "string";
  case Trel_FieldKind::list:
    return "list";
  }
  return "";
}

Trel_FieldValue ValueFromText(const Trel_FieldDescription& field, const std::string& text) {
  switch (field.kind) {
  case Trel_FieldKind::boolean:
    if (text != "true" && text != "false" && text != "1" && text != "0") {
      Reject(field, text, "no flag, true or false");
    }
    return {text == "true" || text == "1"};
  case Trel_FieldKind::ipv4: {
    std::uint32_t address = 0;
    if (!Sys_Socket::EncodeIPAddress(text.c_str(), &address)) {
      Reject(field, text, "no IPv4 address");
    }
    return {std::int64_t{address}};
  }
  case Trel_FieldKind::string:
    return {text};
  case Trel_FieldKind::list:
    return ListFromText(field, text);
  default:
    return {NumberFromText(field, text)};
  }
}

std::string ValueToText(const Trel_FieldDescription& field, const Trel_FieldValue& value) {
  if (field.kind == Trel_FieldKind::ipv4) {
    return Sys_Socket::DecodeIPAddress(static_cast<std::uint32_t>(std::get<std::int64_t>(value.value)));
  }
  std::string text = JsonText(ValueToJson(field, value));
  if (const char* const name = DisplayStringOf(field, value)) {
    text += std::string(" (") + name + ")";
  }
  return text;
}

Json ValueToJson(const Trel_FieldDescription& field, const Trel_FieldValue& value) {
  if (field.kind == Trel_FieldKind::ipv4) {
    return ValueToText(field, value);
  }
  if (const auto* const list = std::get_if<Trel_FieldValue::List>(&value.value)) {
    Json json = Json::array();
    for (const Trel_FieldValue::Record& record : *list) {
      json.push_back(RecordToJson(field, record));
    }
    return json;
  }
  if (const auto* const number = std::get_if<std::int64_t>(&value.value)) {
    return *number;
  }
  if (const auto* const flag = std::get_if<bool>(&value.value)) {
    return *flag;
  }
  return std::get<std::string>(value.value);
}

bool IsUnnamed(const Trel_FieldDescription& field, const Trel_FieldValue& value) {
  return field.displayStrings != nullptr && DisplayStringOf(field, value) == nullptr;
}

std::string NamedValuesText(const Trel_FieldDescription& field) {
  std::vector<std::string> values;
  for (const char* const name : DisplayStringsOf(field)) {
    if (name != nullptr) {
      values.push_back(std::to_string(values.size()) + ' ' + name);
    }
  }
  return Joined(values);
}

std::string JsonText(const Json& json) { return json.dump(-1, ' ', false, Json::error_handler_t::replace); }
