#pragma once

#include "link/commands/Trel_PayloadCodec.h"

#include <trel/Trel_CommandDescription.h>
#include <trel/Trel_Enumerations.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>

/// The values of a codec in general form.
template <class Codec>
struct Trel_GeneralValue {
  using Stored = typename Codec::Stored;
  using Value = typename Codec::Value;

  static Trel_FieldValue From(const Stored& stored) {
    if constexpr (Codec::kKind == Trel_FieldKind::string) {
      return {std::string(Codec::Get(stored))};
    } else if constexpr (Codec::kKind == Trel_FieldKind::boolean) {
      return {Codec::Get(stored)};
    } else {
      return {static_cast<std::int64_t>(Codec::Get(stored))};
    }
  }

  /// By the rules of the setter; false, and nothing has changed, when it is of another kind or out of range.
  static bool To(const Trel_FieldValue& general, Stored& stored) {
    if constexpr (Codec::kKind == Trel_FieldKind::string) {
      const auto* const text = std::get_if<std::string>(&general.value);
      if (text == nullptr || text->find('\0') != std::string::npos) {
        return false;
      }
      Codec::Set(stored, text->c_str());
    } else if constexpr (Codec::kKind == Trel_FieldKind::boolean) {
      const auto* const flag = std::get_if<bool>(&general.value);
      if (flag == nullptr) {
        return false;
      }
      Codec::Set(stored, *flag);
    } else {
      const auto* const number = std::get_if<std::int64_t>(&general.value);
      if (number == nullptr || static_cast<std::int64_t>(static_cast<Value>(*number)) != *number) {
        return false;
      }
      Codec::Set(stored, static_cast<Value>(*number));
    }
    return true;
  }
};

// A field's value, or that of an element of an array, in general form.

template <class Class, class Codec>
Trel_FieldValue Trel_GetGeneral(const Trel_Field<Class, Codec>& field, const Class& object,
                                [[maybe_unused]] std::size_t element) {
  if constexpr (Trel_IsArray<Codec>) {
    return Trel_GeneralValue<typename Codec::Element>::From((object.*field.member)[element]);
  } else {
    return Trel_GeneralValue<Codec>::From(object.*field.member);
  }
}
template <class Class, class Codec>
bool Trel_SetGeneral(const Trel_Field<Class, Codec>& field, Class& object, [[maybe_unused]] std::size_t element,
                     const Trel_FieldValue& general) {
  if constexpr (Trel_IsArray<Codec>) {
    return Trel_GeneralValue<typename Codec::Element>::To(general, (object.*field.member)[element]);
  } else {
    return Trel_GeneralValue<Codec>::To(general, object.*field.member);
  }
}

template <class Entry>
struct Trel_GeneralValue<Trel_List<Entry>> {
  using Stored = typename Trel_List<Entry>::Stored;

  static Trel_FieldValue From(const Stored& stored) {
    Trel_FieldValue::List list;
    for (const auto& record : stored) {
      auto& values = list.emplace_back();
      Trel_ForEachField(Entry::kFields, [&]<class Record, class Codec>(const Trel_Property<Record, Codec>& field) {
        values.push_back(Trel_GeneralValue<Codec>::From(Trel_LoadProperty(field, record)));
      });
    }
    return {list};
  }
  static bool To(const Trel_FieldValue& general, Stored& stored) {
    const auto* const list = std::get_if<Trel_FieldValue::List>(&general.value);
    bool isWhole = list != nullptr;
    Stored fresh;
    for (const auto& values : isWhole ? *list : Trel_FieldValue::List()) {
      auto& record = fresh.emplace_back();
      auto value = values.begin();
      Trel_ForEachField(Entry::kFields, [&]<class Record, class Codec>(const Trel_Property<Record, Codec>& field) {
        typename Codec::Stored part{};
        isWhole = isWhole && value != values.end() && Trel_GeneralValue<Codec>::To(*value++, part);
        (record.*field.set)(Codec::Get(part));
      });
      isWhole = isWhole && value == values.end();
    }
    if (isWhole) {
      stored = std::move(fresh);
    }
    return isWhole;
  }
};

/// Describes a field, each element of an array for itself; `next` moves on behind what it describes.
template <class Codec>
constexpr void Trel_DescribeField(const Trel_FieldBase<Codec>& field, const Trel_FieldAccess& access,
                                  Trel_FieldDescription*& next);

template <class... Fields>
constexpr std::size_t Trel_NumberOfDescriptions() {
  [[maybe_unused]] constexpr auto kNumberOf = []<class Codec>(std::type_identity<Codec> /*codec*/) {
    if constexpr (Trel_IsArray<Codec>) {
      return Codec::kCount;
    } else {
      return std::size_t{1};
    }
  };
  return (std::size_t{0} + ... + kNumberOf(std::type_identity<typename Fields::Codec>()));
}

/// Describes the fields of a payload. `accessTo` gives the access to a field, for its index as an integral constant.
template <class... Fields, class AccessTo>
constexpr auto Trel_DescribePayload(const Trel_Payload<Fields...>& payload, [[maybe_unused]] AccessTo accessTo) {
  std::array<Trel_FieldDescription, Trel_NumberOfDescriptions<Fields...>()> all{};
  [[maybe_unused]] Trel_FieldDescription* next = all.data();
  [&]<std::size_t... Index>(std::index_sequence<Index...>) {
    (Trel_DescribeField(std::get<Index>(payload.fields), accessTo(std::integral_constant<std::size_t, Index>()), next),
     ...);
  }
  (std::index_sequence_for<Fields...>());
  return all;
}

/// What one entry of a list is made of.
template <class Entry>
inline constexpr auto kTrel_EntryDescription = Trel_DescribePayload(Entry::kFields,
                                                                    [](auto /*index*/) { return Trel_FieldAccess{}; });

template <class Codec>
constexpr void Trel_DescribeField(const Trel_FieldBase<Codec>& field, const Trel_FieldAccess& access,
                                  Trel_FieldDescription*& next) {
  constexpr std::size_t kNumber = Trel_NumberOfDescriptions<Trel_FieldBase<Codec>>();
  for (std::size_t index = 0; index < kNumber; ++index) {
    *next = {
        {}, Codec::kKind, Codec::kWidth, field.numbering, field.since, field.meaning, access, index, nullptr, nullptr,
        0};
    char* end = std::copy(field.name, field.name + std::string_view(field.name).size(), next->name);
    if constexpr (Trel_IsArray<Codec>) {
      static_assert(kNumber <= 100);
      if (index >= 10) {
        *end++ = static_cast<char>('0' + index / 10);
      }
      *end = static_cast<char>('0' + index % 10);
    }
    if constexpr (requires { Trel_DisplayStrings(typename Codec::Value{}); }) {
      next->displayStrings = [] { return Trel_DisplayStrings(typename Codec::Value{}); };
    }
    if constexpr (Codec::kKind == Trel_FieldKind::list) {
      next->entry = kTrel_EntryDescription<typename Codec::Entry>.data();
      next->entryFields = kTrel_EntryDescription<typename Codec::Entry>.size();
    }
    ++next;
  }
}
