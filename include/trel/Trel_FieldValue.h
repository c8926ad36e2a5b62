#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

/// The value of any field of a command, in general form: a number (an enumeration, an address in host order and a port
/// too), a flag, a text, or the records of a list, each with its values in wire order.
struct Trel_FieldValue {
  using Record = std::vector<Trel_FieldValue>;
  using List = std::vector<Record>;

  std::variant<std::int64_t, bool, std::string, List> value;

  bool operator==(const Trel_FieldValue& other) const = default;
};
