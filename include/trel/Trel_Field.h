#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <tuple>
#include <vector>

/// @file
/// The fields of commands, as their classes state them: where a value is kept, how it travels, what it means. What
/// writes, reads, prints and describes them stands in the library.

/// How a field is encoded in a payload.
enum class Trel_FieldKind : std::uint8_t { i64, i32, u32, u8, boolean, ipv4, port, string, list };

/// In which numbering a field, or a command, exists.
enum class Trel_Numbering : std::uint8_t { both, current, legacy };

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
};

/// 64-bit integer, big-endian: signed, and as accessors that take it unsigned give it.
using Trel_I64 = Trel_PlainCodec<std::int64_t, Trel_FieldKind::i64, 8>;
using Trel_I64AsUnsigned = Trel_PlainCodec<std::uint64_t, Trel_FieldKind::i64, 8>;

/// Signed 32-bit integer or enumeration, big-endian. Values that the enumeration does not name are kept.
template <class T = std::int32_t>
using Trel_I32 = Trel_PlainCodec<T, Trel_FieldKind::i32, 4>;

/// Unsigned 32-bit integer, big-endian.
using Trel_U32 = Trel_PlainCodec<std::uint32_t, Trel_FieldKind::u32, 4>;

/// Unsigned 32-bit word that never travels: it is written as 0, and what arrives is read and dropped.
struct Trel_MuteU32 : Trel_U32 {
  static constexpr bool kIsMute = true;
};

/// One byte.
using Trel_U8 = Trel_PlainCodec<std::uint8_t, Trel_FieldKind::u8, 1>;

/// Flag in one byte, 0 or 1; every other value reads as true.
using Trel_Bool = Trel_PlainCodec<bool, Trel_FieldKind::boolean, 1>;

/// Flag of which only the byte 1 is true; the byte that arrived is kept.
struct Trel_StrictBool {
  using Stored = std::uint8_t;
  using Value = bool;
  static constexpr Trel_FieldKind kKind = Trel_FieldKind::boolean;
  static constexpr std::uint16_t kWidth = 1;
  static Value Get(const Stored& stored) { return stored == 1; }
  static void Set(Stored& stored, Value value) { stored = value ? 1 : 0; }
};

/// IPv4 address, host order; travels least significant byte first.
using Trel_IPv4 = Trel_PlainCodec<std::uint32_t, Trel_FieldKind::ipv4, 4>;

/// Port, least significant byte first.
using Trel_Port = Trel_PlainCodec<std::uint16_t, Trel_FieldKind::port, 2>;

/// The buffer in which a command keeps a text, whatever its width on the wire.
struct Trel_TextBuffer {
  char text[256] = {};
};

/// What happens to a text that is as long as its field or longer.
struct Trel_UnknownSystemName {
  static constexpr std::string_view kReplacement = "Unknown System Name";
};
struct Trel_UnknownHostName {
  static constexpr std::string_view kReplacement = "Unknown Host Name";
};
struct Trel_CutText {
  static constexpr std::string_view kReplacement{};
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
      text = WhenTooLong::kReplacement.empty() ? text.substr(0, Limit - 1) : WhenTooLong::kReplacement;
    }
    Trel_TextBuffer fresh;
    std::copy(text.begin(), text.end(), fresh.text);
    stored = fresh;
  }
};

using Trel_SystemName = Trel_Text<30, 30, Trel_UnknownSystemName>;
using Trel_HostName = Trel_Text<256, 256, Trel_UnknownHostName>;
using Trel_Message = Trel_Text<256, 256, Trel_CutText>;

/// `Count` values of one kind, one after the other. The class writes the accessors.
template <class ElementCodec, std::size_t Count>
struct Trel_Array {
  using Element = ElementCodec;
  using Stored = std::array<typename ElementCodec::Stored, Count>;
  static constexpr Trel_FieldKind kKind = ElementCodec::kKind;
  static constexpr std::uint16_t kWidth = ElementCodec::kWidth; ///< of one element
  static constexpr std::size_t kCount = Count;
};

/// Any number of records, behind their count. `RecordEntry` names the class of a record and its fields in wire order.
template <class RecordEntry>
struct Trel_List {
  using Entry = RecordEntry;
  using Stored = std::vector<typename Entry::Record>;
  using Value = const Stored&;
  static constexpr Trel_FieldKind kKind = Trel_FieldKind::list;
  static constexpr std::uint16_t kWidth = 0;
  static Value Get(const Stored& stored) { return stored; }
  static void Set(Stored& stored, Value value) { stored = value; }
};

/// What a field is, wherever its value is kept.
template <class FieldCodec>
struct Trel_FieldBase {
  using Codec = FieldCodec;
  const char* name;
  const char* meaning;
  Trel_Numbering numbering = Trel_Numbering::both;
  std::uint8_t since = 0; ///< least payload revision that carries the field
};

/// A field of a class: its codec, its member, and when it travels.
template <class Class, class Codec>
struct Trel_Field : Trel_FieldBase<Codec> {
  typename Codec::Stored Class::*member;
};

/// A field of a record that shows its values through accessors alone.
template <class Record, class Codec>
struct Trel_Property : Trel_FieldBase<Codec> {
  typename Codec::Value (Record::*get)() const;
  void (Record::*set)(typename Codec::Value value);
};

/// A field that gets a value of its own when the sender's revision does not carry it.
template <class Class, class Codec>
struct Trel_FieldOrElse : Trel_Field<Class, Codec> {
  typename Codec::Value otherwise;
};

/// The same field, carried in the current numbering alone, or in the legacy one.
template <class Class, class Codec>
constexpr Trel_Field<Class, Codec> Trel_InCurrent(Trel_Field<Class, Codec> field) {
  field.numbering = Trel_Numbering::current;
  return field;
}
template <class Class, class Codec>
constexpr Trel_Field<Class, Codec> Trel_InLegacy(Trel_Field<Class, Codec> field) {
  field.numbering = Trel_Numbering::legacy;
  return field;
}

/// The same field, carried from a payload revision on. From an older sender it keeps the value that it has...
template <class Class, class Codec>
constexpr Trel_Field<Class, Codec> Trel_Since(std::uint8_t revision, Trel_Field<Class, Codec> field) {
  field.since = revision;
  return field;
}

/// ...or becomes `otherwise`.
template <class Class, class Codec>
constexpr Trel_FieldOrElse<Class, Codec> Trel_Since(std::uint8_t revision, Trel_Field<Class, Codec> field,
                                                    typename Codec::Value otherwise) {
  return {Trel_Since(revision, field), otherwise};
}

/// The same text, in a field of another width.
template <std::uint16_t Width, class Class, class Codec>
constexpr Trel_Field<Class, typename Codec::template WithWidth<Width>> Trel_WithWidth(Trel_Field<Class, Codec> field) {
  return {{field.name, field.meaning, field.numbering, field.since}, field.member};
}

/// The fields of a payload, in wire order.
template <class... Fields>
struct Trel_Payload {
  std::tuple<Fields...> fields;

  constexpr explicit Trel_Payload(Fields... list) : fields(list...) {}
};

/// Declares a field: the member `m<Name>`, the accessors `Get<Name>` and `Set<Name>`, and `k<Name>` for the payload
/// lists. The meaning says what the value is, with unit and range.
#define TREL_FIELD(FieldCodec, Name, Meaning)                                                                          \
  TREL_FIELD_WITHOUT_SETTER(FieldCodec, Name, Meaning)                                                                 \
  /** Sets the field of this name; its meaning stands in the class's description. */                                   \
  void Set##Name(FieldCodec::Value value) { FieldCodec::Set(m##Name, value); }

/// The same for the only field of the command, or of the reply; the payload list is made too.
#define TREL_COMMAND_FIELD(FieldCodec, Name, Meaning)                                                                  \
  TREL_FIELD(FieldCodec, Name, Meaning)                                                                                \
  static constexpr Trel_Payload kCommand{k##Name};
#define TREL_REPLY_FIELD(FieldCodec, Name, Meaning)                                                                    \
  TREL_FIELD(FieldCodec, Name, Meaning)                                                                                \
  static constexpr Trel_Payload kReply{k##Name};

/// The same for a field whose setter the class writes itself.
#define TREL_FIELD_WITHOUT_SETTER(FieldCodec, Name, Meaning)                                                           \
  TREL_FIELD_WITHOUT_ACCESSORS(FieldCodec, Name, Meaning)                                                              \
  /** Gets the field of this name. */                                                                                  \
  FieldCodec::Value Get##Name() const { return FieldCodec::Get(m##Name); }

/// The same for a field whose accessors the class writes itself.
#define TREL_FIELD_WITHOUT_ACCESSORS(FieldCodec, Name, Meaning)                                                        \
private:                                                                                                               \
  FieldCodec::Stored m##Name{};                                                                                        \
                                                                                                                       \
public:                                                                                                                \
  static constexpr Trel_Field<Self, FieldCodec> k##Name{{#Name, Meaning}, &Self::m##Name};
