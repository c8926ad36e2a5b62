#pragma once

#include <trel/TCPE_Command.h>
#include <trel/Trel_CommandDescription.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string_view>
#include <tuple>
#include <type_traits>

// Codecs: how one field is stored in a command, and how it travels. `Value` is what accessors give and take.

/// A field that is stored as the value that its accessors give and take.
template <class T, Trel_FieldKind Kind, std::uint16_t Width>
struct Trel_PlainCodec {
  using Stored = T;
  using Value = T;
  static constexpr Trel_FieldKind kKind = Kind;
  static constexpr std::uint16_t kWidth = Width;
  static Value Get(const Stored& stored) { return stored; }
  static void Set(Stored& stored, Value value) { stored = value; }
  static void Print(const Stored& stored, std::ostream& out) { out << +stored; }
};

/// Signed 64-bit integer, big-endian.
struct Trel_I64 : Trel_PlainCodec<std::int64_t, Trel_FieldKind::i64, 8> {
  static void Write(TCPE_Command& command, Stored value, char** cursor) { command.WriteInt64(value, cursor); }
  static void Read(TCPE_Command& command, Stored& value, char** cursor) { value = command.ReadInt64(cursor); }
};

/// Signed 32-bit integer or enumeration, big-endian. Values that the enumeration does not name are kept.
template <class T = std::int32_t>
struct Trel_I32 : Trel_PlainCodec<T, Trel_FieldKind::i32, 4> {
  static void Write(TCPE_Command& command, T value, char** cursor) {
    command.WriteInt32(static_cast<std::int32_t>(value), cursor);
  }
  static void Read(TCPE_Command& command, T& value, char** cursor) {
    value = static_cast<T>(command.ReadInt32(cursor));
  }
};

/// Unsigned 32-bit integer, big-endian.
struct Trel_U32 : Trel_PlainCodec<std::uint32_t, Trel_FieldKind::u32, 4> {
  static void Write(TCPE_Command& command, Stored value, char** cursor) { command.WriteUInt32(value, cursor); }
  static void Read(TCPE_Command& command, Stored& value, char** cursor) { value = command.ReadUInt32(cursor); }
};

/// One byte.
struct Trel_U8 : Trel_PlainCodec<std::uint8_t, Trel_FieldKind::u8, 1> {
  static void Write(TCPE_Command& command, Stored value, char** cursor) { command.WriteUInt8(value, cursor); }
  static void Read(TCPE_Command& command, Stored& value, char** cursor) { value = command.ReadUInt8(cursor); }
};

/// Flag in one byte, 0 or 1; every other value reads as true.
struct Trel_Bool : Trel_PlainCodec<bool, Trel_FieldKind::boolean, 1> {
  static void Write(TCPE_Command& command, Stored value, char** cursor) { command.WriteBool(value, cursor); }
  static void Read(TCPE_Command& command, Stored& value, char** cursor) { value = command.ReadBool(cursor); }
};

/// Flag of which only the byte 1 is true; the byte that arrived is kept.
struct Trel_StrictBool {
  using Stored = std::uint8_t;
  using Value = bool;
  static constexpr Trel_FieldKind kKind = Trel_FieldKind::boolean;
  static constexpr std::uint16_t kWidth = 1;
  static Value Get(const Stored& stored) { return stored == 1; }
  static void Set(Stored& stored, Value value) { stored = value ? 1 : 0; }
  static void Print(const Stored& stored, std::ostream& out) { out << +stored; }
  static void Write(TCPE_Command& command, Stored value, char** cursor) { command.WriteUInt8(value, cursor); }
  static void Read(TCPE_Command& command, Stored& value, char** cursor) { value = command.ReadUInt8(cursor); }
};

/// IPv4 address, host order; travels least significant byte first.
struct Trel_IPv4 : Trel_PlainCodec<std::uint32_t, Trel_FieldKind::ipv4, 4> {
  static void Write(TCPE_Command& command, Stored value, char** cursor) { command.WriteIPAddress(value, cursor); }
  static void Read(TCPE_Command& command, Stored& value, char** cursor) { value = command.ReadIPAddress(cursor); }
  static void Print(const Stored& stored, std::ostream& out) {
    out << (stored >> 24U) << '.' << (stored >> 16U & 0xffU) << '.' << (stored >> 8U & 0xffU) << '.'
        << (stored & 0xffU);
  }
};

/// Port, least significant byte first.
struct Trel_Port : Trel_PlainCodec<std::uint16_t, Trel_FieldKind::port, 2> {
  static void Write(TCPE_Command& command, Stored value, char** cursor) { command.WritePort(value, cursor); }
  static void Read(TCPE_Command& command, Stored& value, char** cursor) { value = command.ReadPort(cursor); }
};

/// The buffer in which a command keeps a text, whatever its width on the wire.
struct Trel_TextBuffer {
  char text[256] = {};
};

/// What happens to a text that is as long as its field or longer.
struct Trel_UnknownSystemName {
  static constexpr const char* kReplacement = "Unknown System Name";
};
struct Trel_UnknownHostName {
  static constexpr const char* kReplacement = "Unknown Host Name";
};
struct Trel_CutText {
  static constexpr const char* kReplacement = nullptr;
};

/// Fixed-length text of `Width` bytes on the wire; a setter replaces or cuts one of `Limit` characters or more.
template <std::uint16_t Width, std::size_t Limit, class WhenTooLong>
struct Trel_Text {
  using Stored = Trel_TextBuffer;
  using Value = const char*;
  template <std::uint16_t OtherWidth>
  using WithWidth = Trel_Text<OtherWidth, Limit, WhenTooLong>;
  static constexpr Trel_FieldKind kKind = Trel_FieldKind::string;
  static constexpr std::uint16_t kWidth = Width;
  static_assert(Width <= sizeof(Trel_TextBuffer) && Limit <= sizeof(Trel_TextBuffer));

  static Value Get(const Stored& stored) { return stored.text; }
  static void Set(Stored& stored, Value value) {
    std::string_view text = value == nullptr ? std::string_view() : std::string_view(value);
    if (text.size() >= Limit) {
      text = WhenTooLong::kReplacement != nullptr ? std::string_view(WhenTooLong::kReplacement)
                                                  : text.substr(0, Limit - 1);
    }
    Trel_TextBuffer fresh;
    std::copy(text.begin(), text.end(), fresh.text);
    stored = fresh;
  }
  static void Write(TCPE_Command& command, const Stored& value, char** cursor) {
    command.WriteFixedLengthString(value.text, Width, cursor);
  }
  static void Read(TCPE_Command& command, Stored& value, char** cursor) {
    value = {};
    command.ReadFixedLengthString(value.text, Width, cursor);
  }
  static void Print(const Stored& stored, std::ostream& out) { out << '"' << stored.text << '"'; }
};

using Trel_SystemName = Trel_Text<30, 30, Trel_UnknownSystemName>;
using Trel_HostName = Trel_Text<256, 256, Trel_UnknownHostName>;
using Trel_Message = Trel_Text<256, 256, Trel_CutText>;

/// A field of a class: its codec, its member, and when it travels.
template <class Class, class FieldCodec>
struct Trel_Field {
  using Codec = FieldCodec;
  const char* name;
  const char* meaning;
  typename Codec::Stored Class::*member;
  Trel_Numbering numbering = Trel_Numbering::both;
  std::uint8_t since = 0;

  constexpr Trel_FieldDescription Describe() const {
    return {name, Codec::kKind, Codec::kWidth, numbering, since, meaning};
  }
};

/// The same field, carried in one numbering alone.
template <class Class, class Codec>
constexpr Trel_Field<Class, Codec> Trel_In(Trel_Numbering numbering, Trel_Field<Class, Codec> field) {
  field.numbering = numbering;
  return field;
}

/// The same field, carried from a payload revision on.
template <class Class, class Codec>
constexpr Trel_Field<Class, Codec> Trel_Since(std::uint8_t revision, Trel_Field<Class, Codec> field) {
  field.since = revision;
  return field;
}

/// The same text, in a field of another width.
template <std::uint16_t Width, class Class, class Codec>
constexpr Trel_Field<Class, typename Codec::template WithWidth<Width>> Trel_WithWidth(Trel_Field<Class, Codec> field) {
  return {field.name, field.meaning, field.member, field.numbering, field.since};
}

/// The fields of a payload, in wire order.
template <class... Fields>
struct Trel_Payload {
  std::tuple<Fields...> fields;

  constexpr explicit Trel_Payload(Fields... list) : fields(list...) {}

  constexpr bool DependsOnNumbering() const {
    return std::apply([](const auto&... field) { return (false || ... || (field.numbering != Trel_Numbering::both)); },
                      fields);
  }
  constexpr std::array<Trel_FieldDescription, sizeof...(Fields)> Describe() const {
    return std::apply(
        [](const auto&... field) { return std::array<Trel_FieldDescription, sizeof...(Fields)>{field.Describe()...}; },
        fields);
  }
};

/// Declares a field: the member `m<Name>`, the accessors `Get<Name>` and `Set<Name>`, and `k<Name>` for the payload
/// lists. The meaning says what the value is, with unit and range.
#define TREL_FIELD(FieldCodec, Name, Meaning)                                                                          \
  TREL_FIELD_WITHOUT_SETTER(FieldCodec, Name, Meaning)                                                                 \
  /** Sets the field of this name; its meaning stands in the class's description. */                                   \
  void Set##Name(FieldCodec::Value value) { FieldCodec::Set(m##Name, value); }

/// The same for a field whose setter the class writes itself.
#define TREL_FIELD_WITHOUT_SETTER(FieldCodec, Name, Meaning)                                                           \
private:                                                                                                               \
  FieldCodec::Stored m##Name{};                                                                                        \
                                                                                                                       \
public:                                                                                                                \
  static constexpr Trel_Field<Self, FieldCodec> k##Name{#Name, Meaning, &Self::m##Name};                               \
  /** Gets the field of this name. */                                                                                  \
  FieldCodec::Value Get##Name() const { return FieldCodec::Get(m##Name); }
