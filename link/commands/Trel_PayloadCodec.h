#pragma once

#include <trel/Cmn_Printable.h>
#include <trel/TCPE_Command.h>
#include <trel/Trel_Field.h>

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <tuple>
#include <type_traits>

/// Calls an action with each field of a payload, in wire order.
template <class... Fields, class Action>
constexpr void Trel_ForEachField(const Trel_Payload<Fields...>& payload, [[maybe_unused]] Action action) {
  std::apply([&](const auto&... field) { (action(field), ...); }, payload.fields);
}

/// Bytes on the wire, of fields that are always carried.
template <class... Fields>
constexpr std::size_t Trel_WidthOf(const Trel_Payload<Fields...>& /*payload*/) {
  return (std::size_t{0} + ... + Fields::Codec::kWidth);
}

template <class Codec>
concept Trel_IsArray = requires {
  Codec::kCount;
};

/// How the values of a codec travel, and how they are printed.
template <class Codec>
struct Trel_ValueCodec {
  using Stored = typename Codec::Stored;

  static void Write(TCPE_Command& command, const Stored& value, char** cursor) {
    if constexpr (Codec::kKind == Trel_FieldKind::i64) {
      command.WriteInt64(static_cast<std::int64_t>(value), cursor);
    } else if constexpr (Codec::kKind == Trel_FieldKind::i32) {
      command.WriteInt32(static_cast<std::int32_t>(value), cursor);
    } else if constexpr (requires { Codec::kIsMute; }) {
      command.WriteUInt32(0, cursor);
    } else if constexpr (Codec::kKind == Trel_FieldKind::u32) {
      command.WriteUInt32(value, cursor);
    } else if constexpr (std::is_same_v<Stored, bool>) {
      command.WriteBool(value, cursor);
    } else if constexpr (Codec::kKind == Trel_FieldKind::u8 || Codec::kKind == Trel_FieldKind::boolean) {
      command.WriteUInt8(value, cursor);
    } else if constexpr (Codec::kKind == Trel_FieldKind::ipv4) {
      command.WriteIPAddress(value, cursor);
    } else if constexpr (Codec::kKind == Trel_FieldKind::port) {
      command.WritePort(value, cursor);
    } else {
      static_assert(Codec::kKind == Trel_FieldKind::string);
      command.WriteFixedLengthString(value.text, Codec::kWidth, cursor);
    }
  }

  static void Read(TCPE_Command& command, [[maybe_unused]] Stored& value, char** cursor) {
    if constexpr (Codec::kKind == Trel_FieldKind::i64) {
      value = static_cast<Stored>(command.ReadInt64(cursor));
    } else if constexpr (Codec::kKind == Trel_FieldKind::i32) {
      value = static_cast<Stored>(command.ReadInt32(cursor));
    } else if constexpr (requires { Codec::kIsMute; }) {
      command.ReadUInt32(cursor);
    } else if constexpr (Codec::kKind == Trel_FieldKind::u32) {
      value = command.ReadUInt32(cursor);
    } else if constexpr (std::is_same_v<Stored, bool>) {
      value = command.ReadBool(cursor);
    } else if constexpr (Codec::kKind == Trel_FieldKind::u8 || Codec::kKind == Trel_FieldKind::boolean) {
      value = command.ReadUInt8(cursor);
    } else if constexpr (Codec::kKind == Trel_FieldKind::ipv4) {
      value = command.ReadIPAddress(cursor);
    } else if constexpr (Codec::kKind == Trel_FieldKind::port) {
      value = command.ReadPort(cursor);
    } else {
      static_assert(Codec::kKind == Trel_FieldKind::string);
      value = {};
      command.ReadFixedLengthString(value.text, Codec::kWidth, cursor);
    }
  }

  static void Print(const Stored& value, std::ostream& out) {
    if constexpr (Codec::kKind == Trel_FieldKind::ipv4) {
      out << (value >> 24U) << '.' << (value >> 16U & 0xffU) << '.' << (value >> 8U & 0xffU) << '.' << (value & 0xffU);
    } else if constexpr (Codec::kKind == Trel_FieldKind::string) {
      out << '"' << Cmn_Printable(value.text) << '"';
    } else {
      out << +value;
    }
  }
};

template <Trel_IsArray Codec>
struct Trel_ValueCodec<Codec> {
  using Stored = typename Codec::Stored;
  using Element = Trel_ValueCodec<typename Codec::Element>;

  static void Write(TCPE_Command& command, const Stored& value, char** cursor) {
    for (const auto& element : value) {
      Element::Write(command, element, cursor);
    }
  }
  static void Read(TCPE_Command& command, Stored& value, char** cursor) {
    for (auto& element : value) {
      Element::Read(command, element, cursor);
    }
  }
  static void Print(const Stored& value, std::ostream& out) {
    const char* separator = "";
    for (const auto& element : value) {
      Element::Print(element, out << separator);
      separator = ",";
    }
  }
};

// How a field of an object travels, whose value is a member...

template <class Class, class Codec>
void Trel_WriteField(TCPE_Command& command, const Trel_Field<Class, Codec>& field, const Class& object, char** cursor) {
  Trel_ValueCodec<Codec>::Write(command, object.*field.member, cursor);
}
template <class Class, class Codec>
void Trel_ReadField(TCPE_Command& command, const Trel_Field<Class, Codec>& field, Class& object, char** cursor) {
  Trel_ValueCodec<Codec>::Read(command, object.*field.member, cursor);
}
template <class Class, class Codec>
void Trel_PrintField(const Trel_Field<Class, Codec>& field, const Class& object, std::ostream& out) {
  Trel_ValueCodec<Codec>::Print(object.*field.member, out << field.name << '=');
}

// ...or comes from accessors.

template <class Record, class Codec>
typename Codec::Stored Trel_LoadProperty(const Trel_Property<Record, Codec>& field,
                                         const std::type_identity_t<Record>& record) {
  typename Codec::Stored stored{};
  Codec::Set(stored, (record.*field.get)());
  return stored;
}
template <class Record, class Codec>
void Trel_WriteField(TCPE_Command& command, const Trel_Property<Record, Codec>& field,
                     const std::type_identity_t<Record>& record, char** cursor) {
  Trel_ValueCodec<Codec>::Write(command, Trel_LoadProperty(field, record), cursor);
}
template <class Record, class Codec>
void Trel_ReadField(TCPE_Command& command, const Trel_Property<Record, Codec>& field,
                    std::type_identity_t<Record>& record, char** cursor) {
  typename Codec::Stored stored{};
  Trel_ValueCodec<Codec>::Read(command, stored, cursor);
  (record.*field.set)(Codec::Get(stored));
}
template <class Record, class Codec>
void Trel_PrintField(const Trel_Property<Record, Codec>& field, const std::type_identity_t<Record>& record,
                     std::ostream& out) {
  Trel_ValueCodec<Codec>::Print(Trel_LoadProperty(field, record), out << field.name << '=');
}

template <class Entry>
struct Trel_ValueCodec<Trel_List<Entry>> {
  using Stored = typename Trel_List<Entry>::Stored;
  using Record = typename Entry::Record;
  static constexpr std::size_t kCountWidth = 4;
  static constexpr std::size_t kEntryWidth = Trel_WidthOf(Entry::kFields);

  /// Writes all of it or, when it does not fit, nothing.
  static void Write(TCPE_Command& command, const Stored& value, char** cursor) {
    if (kCountWidth + value.size() * kEntryWidth > command.GetPayloadBytesLeft(*cursor)) {
      command.SetPayloadFault(*cursor);
      return;
    }
    command.WriteInt32(static_cast<std::int32_t>(value.size()), cursor);
    for (const Record& record : value) {
      Trel_ForEachField(Entry::kFields, [&](const auto& field) { Trel_WriteField(command, field, record, cursor); });
    }
  }
  static void Read(TCPE_Command& command, Stored& value, char** cursor) {
    value.clear();
    const std::int32_t count = command.ReadInt32(cursor);
    if (count < 0 || static_cast<std::size_t>(count) > command.GetPayloadBytesLeft(*cursor) / kEntryWidth) {
      command.SetPayloadFault(*cursor);
      return;
    }
    value.resize(static_cast<std::size_t>(count));
    for (Record& record : value) {
      Trel_ForEachField(Entry::kFields, [&](const auto& field) { Trel_ReadField(command, field, record, cursor); });
    }
  }
  static void Print(const Stored& value, std::ostream& out) {
    for (const Record& record : value) {
      const char* separator = "{";
      Trel_ForEachField(Entry::kFields, [&](const auto& field) {
        Trel_PrintField(field, record, out << separator);
        separator = " ";
      });
      out << '}';
    }
  }
};
