#pragma once

#include <trel/Trel_CommandDescription.h>

/// A value for any field, none that it has in its initial state.
inline Trel_FieldValue ValueFor(const Trel_FieldDescription& field) {
  switch (field.kind) {
  case Trel_FieldKind::boolean:
    return {true};
  case Trel_FieldKind::string:
    return {std::string("a text")};
  case Trel_FieldKind::list: {
    Trel_FieldValue::Record entry;
    for (std::size_t part = 0; part < field.entryFields; ++part) {
      entry.push_back(ValueFor(field.entry[part]));
    }
    return {Trel_FieldValue::List(2, entry)};
  }
  default:
    return {std::int64_t{7}};
  }
}
