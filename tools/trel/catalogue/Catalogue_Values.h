#pragma once

#include <trel/Trel_CommandDescription.h>

#include <nlohmann/json_fwd.hpp>

#include <span>
#include <string>

// Values of fields as people and programs write them. A value that a field cannot have is a std::invalid_argument that
// says why.

/// Name of a kind, as the catalogue is listed: i64 i32 u32 u8 bool ipv4 port string list.
const char* KindName(Trel_FieldKind kind);

/// The fields of each entry of a list.
std::span<const Trel_FieldDescription> EntryOf(const Trel_FieldDescription& list);

/// Reads a value from a command line: a number, decimal or 0x..., or the display string of an enumeration; true, false,
/// 1 or 0; an address as 10.0.0.1; a text; a list as a JSON array of objects.
Trel_FieldValue ValueFromText(const Trel_FieldDescription& field, const std::string& text);
/// What ValueFromText reads, with the display string of an enumeration behind the number; texts stand in quotes.
std::string ValueToText(const Trel_FieldDescription& field, const Trel_FieldValue& value);
/// Numbers, flags, texts (addresses are texts) and, for a list, an array of objects.
nlohmann::ordered_json ValueToJson(const Trel_FieldDescription& field, const Trel_FieldValue& value);

/// Whether a field is an enumeration that has no name for this value.
bool IsUnnamed(const Trel_FieldDescription& field, const Trel_FieldValue& value);
/// The values of an enumeration and their display strings: "0 Undefined, 1 23.976".
std::string NamedValuesText(const Trel_FieldDescription& field);

/// Text of a JSON value in one line; what is not UTF-8 in texts that came over the network is replaced.
std::string JsonText(const nlohmann::ordered_json& json);
