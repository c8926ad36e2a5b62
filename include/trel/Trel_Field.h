#pragma once

#include <trel/TCPE_Command.h>
#include <trel/Trel_CommandDescription.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

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

/// 64-bit integer, big-endian: signed, and as accessors that take it unsigned give it.
template <class T>
struct Trel_Int64 : Trel_PlainCodec<T, Trel_FieldKind::i64, 8> {
  static void Write(TCPE_Command& command, T value, char** cursor) {
    command.WriteInt64(static_cast<std::int64_t>(value), cursor);
  }
  static void Read(TCPE_Command& command, T& value, char** cursor) {
    value = static_cast<T>(command.ReadInt64(cursor));
  }
};
using Trel_I64 = Trel_Int64<std::int64_t>;
using Trel_I64AsUnsigned = Trel_Int64<std::uint64_t>;

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

/// Unsigned 32-bit word that never travels: it is written as 0, and what arrives is read and dropped.
struct Trel_MuteU32 : Trel_U32 {
  static void Write(TCPE_Command& command, Stored /*value*/, char** cursor) { command.WriteUInt32(0, cursor); }
  static void Read(TCPE_Command& command, Stored& /*value*/, char** cursor) { command.ReadUInt32(cursor); }
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
  static void Write(TCPE_Command& command, const Stored& value, char** cursor) {
    command.WriteFixedLengthString(value.text, Width, cursor);
  }
  static void Read(TCPE_Command& command, Stored& value, char** cursor) {
    value = {};
    command.ReadFixedLengthString(value.text, Width, cursor);
  }
  /// Control characters, which a peer could forge lines of a log with, come out as dots.
  static void Print(const Stored& stored, std::ostream& out) {
    out << '"';
    for (const char character : std::string_view(stored.text)) {
      out << (static_cast<unsigned char>(character) < ' ' || character == 0x7f ? '.' : character);
    }
    out << '"';
  }
};

using Trel_SystemName = Trel_Text<30, 30, Trel_UnknownSystemName>;
using Trel_HostName = Trel_Text<256, 256, Trel_UnknownHostName>;
using Trel_Message = Trel_Text<256, 256, Trel_CutText>;

/// A value as accessors give it, in general form.
template <class Codec>
Trel_FieldValue Trel_ToGeneral(typename Codec::Value value) {
  if constexpr (Codec::kKind == Trel_FieldKind::list) {
    return {Codec::ToGeneral(value)};
  } else if constexpr (Codec::kKind == Trel_FieldKind::string) {
    return {std::string(value)};
  } else if constexpr (Codec::kKind == Trel_FieldKind::boolean) {
    return {value};
  } else {
    return {static_cast<std::int64_t>(value)};
  }
}

/// Gives a value in general form to a setter; false, and not given, when it is of another kind or out of range.
template <class Codec, class Setter>
bool Trel_FromGeneral(const Trel_FieldValue& general, Setter set) {
  if constexpr (Codec::kKind == Trel_FieldKind::list) {
    const auto* const list = std::get_if<Trel_FieldValue::List>(&general.value);
    typename Codec::Stored records;
    if (list == nullptr || !Codec::FromGeneral(*list, &records)) {
      return false;
    }
    set(records);
  } else if constexpr (Codec::kKind == Trel_FieldKind::string) {
    const auto* const text = std::get_if<std::string>(&general.value);
    if (text == nullptr || text->find('\0') != std::string::npos) {
      return false;
    }
    set(text->c_str());
  } else if constexpr (Codec::kKind == Trel_FieldKind::boolean) {
    const auto* const flag = std::get_if<bool>(&general.value);
    if (flag == nullptr) {
      return false;
    }
    set(*flag);
  } else {
    const auto* const number = std::get_if<std::int64_t>(&general.value);
    if (number == nullptr || static_cast<std::int64_t>(static_cast<typename Codec::Value>(*number)) != *number) {
      return false;
    }
    set(static_cast<typename Codec::Value>(*number));
  }
  return true;
}

/// `Count` values of one kind, one after the other. The class writes the accessors.
template <class ElementCodec, std::size_t Count>
struct Trel_Array {
  using Element = ElementCodec;
  using Stored = std::array<typename ElementCodec::Stored, Count>;
  static constexpr Trel_FieldKind kKind = ElementCodec::kKind;
  static constexpr std::uint16_t kWidth = ElementCodec::kWidth; ///< of one element
  static constexpr std::size_t kCount = Count;

  static void Write(TCPE_Command& command, const Stored& value, char** cursor) {
    for (const auto& element : value) {
      ElementCodec::Write(command, element, cursor);
    }
  }
  static void Read(TCPE_Command& command, Stored& value, char** cursor) {
    for (auto& element : value) {
      ElementCodec::Read(command, element, cursor);
    }
  }
  static void Print(const Stored& stored, std::ostream& out) {
    const char* separator = "";
    for (const auto& element : stored) {
      ElementCodec::Print(element, out << separator);
      separator = ",";
    }
  }
};

/// Any number of records, behind their count. `Entry` names the class of a record and its fields in wire order.
template <class Entry>
struct Trel_List {
  using Stored = std::vector<typename Entry::Record>;
  using Value = const Stored&;
  static constexpr Trel_FieldKind kKind = Trel_FieldKind::list;
  static constexpr std::uint16_t kWidth = 0;
  static constexpr std::size_t kCountWidth = 4;
  static constexpr std::size_t kEntryWidth = Entry::kFields.Width();
  static constexpr auto kEntry = Entry::kFields.Describe([](auto /*index*/) { return Trel_FieldAccess{}; });

  static Trel_FieldValue::List ToGeneral(const Stored& stored) {
    Trel_FieldValue::List list;
    for (const auto& record : stored) {
      auto& values = list.emplace_back();
      Entry::kFields.ForEach([&](const auto& field) { values.push_back(field.GetGeneral(record)); });
    }
    return list;
  }
  static bool FromGeneral(const Trel_FieldValue::List& list, Stored* stored) {
    bool isWhole = true;
    for (const auto& values : list) {
      auto& record = stored->emplace_back();
      auto value = values.begin();
      Entry::kFields.ForEach(
          [&](const auto& field) { isWhole = isWhole && value != values.end() && field.SetGeneral(record, *value++); });
      isWhole = isWhole && value == values.end();
    }
    return isWhole;
  }
  static Value Get(const Stored& stored) { return stored; }
  static void Set(Stored& stored, Value value) { stored = value; }
  /// Writes all of it or, when it does not fit, nothing.
  static void Write(TCPE_Command& command, const Stored& value, char** cursor) {
    if (kCountWidth + value.size() * kEntryWidth > command.GetPayloadBytesLeft(*cursor)) {
      command.SetPayloadFault(*cursor);
      return;
    }
    command.WriteInt32(static_cast<std::int32_t>(value.size()), cursor);
    for (const auto& record : value) {
      Entry::kFields.ForEach([&](const auto& field) { field.Write(command, record, cursor); });
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
    for (auto& record : value) {
      Entry::kFields.ForEach([&](const auto& field) { field.Read(command, record, cursor); });
    }
  }
  static void Print(const Stored& stored, std::ostream& out) {
    for (const auto& record : stored) {
      const char* separator = "{";
      Entry::kFields.ForEach([&](const auto& field) {
        field.Print(record, out << separator);
        separator = " ";
      });
      out << '}';
    }
  }
};

/// What a field is, wherever its value is kept.
template <class FieldCodec>
struct Trel_FieldBase {
  using Codec = FieldCodec;
  const char* name;
  const char* meaning;
  Trel_Numbering numbering = Trel_Numbering::both;
  std::uint8_t since = 0;

  static constexpr bool kIsArray = requires { Codec::kCount; };

  static constexpr std::size_t NumberOfDescriptions() {
    if constexpr (kIsArray) {
      return Codec::kCount;
    } else {
      return 1;
    }
  }
  /// Describes the field, each element of an array for itself.
  constexpr void Describe(Trel_FieldDescription*& next, const Trel_FieldAccess& access) const {
    for (std::size_t index = 0; index < NumberOfDescriptions(); ++index) {
      *next = {{}, Codec::kKind, Codec::kWidth, numbering, since, meaning, access, index, nullptr, nullptr, 0};
      char* end = std::copy(name, name + std::string_view(name).size(), next->name);
      if constexpr (kIsArray) {
        static_assert(Codec::kCount <= 100);
        if (index >= 10) {
          *end++ = static_cast<char>('0' + index / 10);
        }
        *end = static_cast<char>('0' + index % 10);
      }
      if constexpr (requires { Trel_DisplayStrings(typename Codec::Value{}); }) {
        next->displayStrings = [] { return Trel_DisplayStrings(typename Codec::Value{}); };
      }
      if constexpr (requires { Codec::kEntry; }) {
        next->entry = Codec::kEntry.data();
        next->entryFields = Codec::kEntry.size();
      }
      ++next;
    }
  }
};

/// A field of a class: its codec, its member, and when it travels.
template <class Class, class Codec>
struct Trel_Field : Trel_FieldBase<Codec> {
  typename Codec::Stored Class::*member;

  void Write(TCPE_Command& command, const Class& object, char** cursor) const {
    Codec::Write(command, object.*member, cursor);
  }
  void Read(TCPE_Command& command, Class& object, char** cursor) const { Codec::Read(command, object.*member, cursor); }
  void Print(const Class& object, std::ostream& out) const { Codec::Print(object.*member, out << this->name << '='); }

  /// The value, or that of an element of an array, in general form.
  Trel_FieldValue GetGeneral(const Class& object, [[maybe_unused]] std::size_t element) const {
    if constexpr (Trel_Field::kIsArray) {
      return Trel_ToGeneral<typename Codec::Element>(Codec::Element::Get((object.*member)[element]));
    } else {
      return Trel_ToGeneral<Codec>(Codec::Get(object.*member));
    }
  }
  /// Sets it by the rules of the setter.
  bool SetGeneral(Class& object, [[maybe_unused]] std::size_t element, const Trel_FieldValue& general) const {
    if constexpr (Trel_Field::kIsArray) {
      using Element = typename Codec::Element;
      return Trel_FromGeneral<Element>(
          general, [&](typename Element::Value value) { Element::Set((object.*member)[element], value); });
    } else {
      return Trel_FromGeneral<Codec>(general, [&](typename Codec::Value value) { Codec::Set(object.*member, value); });
    }
  }
};

/// A field of a record that shows its values through accessors alone.
template <class Record, class Codec>
struct Trel_Property : Trel_FieldBase<Codec> {
  typename Codec::Value (Record::*get)() const;
  void (Record::*set)(typename Codec::Value value);

  void Write(TCPE_Command& command, const Record& record, char** cursor) const {
    Codec::Write(command, Load(record), cursor);
  }
  void Read(TCPE_Command& command, Record& record, char** cursor) const {
    typename Codec::Stored stored{};
    Codec::Read(command, stored, cursor);
    (record.*set)(Codec::Get(stored));
  }
  void Print(const Record& record, std::ostream& out) const { Codec::Print(Load(record), out << this->name << '='); }
  Trel_FieldValue GetGeneral(const Record& record) const { return Trel_ToGeneral<Codec>((record.*get)()); }
  bool SetGeneral(Record& record, const Trel_FieldValue& general) const {
    return Trel_FromGeneral<Codec>(general, [&](typename Codec::Value value) { (record.*set)(value); });
  }

private:
  typename Codec::Stored Load(const Record& record) const {
    typename Codec::Stored stored{};
    Codec::Set(stored, (record.*get)());
    return stored;
  }
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

  template <class Action>
  constexpr void ForEach(Action action) const {
    std::apply([&](const auto&... field) { (action(field), ...); }, fields);
  }
  constexpr bool DependsOnNumbering() const {
    return std::apply([](const auto&... field) { return (false || ... || (field.numbering != Trel_Numbering::both)); },
                      fields);
  }
  /// Bytes on the wire, of fields that are always carried.
  constexpr std::size_t Width() const { return (std::size_t{0} + ... + Fields::Codec::kWidth); }
  /// `accessTo` gives the access to a field, for its index as an integral constant.
  template <class AccessTo>
  constexpr auto Describe([[maybe_unused]] AccessTo accessTo) const {
    std::array<Trel_FieldDescription, (std::size_t{0} + ... + Fields::NumberOfDescriptions())> all{};
    [[maybe_unused]] Trel_FieldDescription* next = all.data();
    const auto describe = [&]<std::size_t... Index>(std::index_sequence<Index...>) {
      (std::get<Index>(fields).Describe(next, accessTo(std::integral_constant<std::size_t, Index>())), ...);
    };
    describe(std::index_sequence_for<Fields...>());
    return all;
  }
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
