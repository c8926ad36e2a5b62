#include <trel/Trel_DescribedCommand.h>

#include "link/commands/Trel_PayloadCodec.h"
#include "link/commands/Trel_PayloadDescription.h"

#include <trel/TCPE_CommManager.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_Cmd_Control.h>
#include <trel/Trel_Cmd_Dialogs.h>
#include <trel/Trel_Cmd_Grouping.h>
#include <trel/Trel_Cmd_Identity.h>
#include <trel/Trel_Cmd_Project.h>
#include <trel/Trel_Cmd_Selection.h>
#include <trel/Trel_Cmd_State.h>
#include <trel/Trel_Cmd_Transport.h>
#include <trel/Trel_Cmd_Video.h>

#include <cstddef>
#include <ostream>
#include <tuple>
#include <type_traits>
#include <utility>

// Everything compiles down to straight-line code: each field is a constant of its own, the numbering is only asked for
// when a field depends on it, and nothing is called on the way to the bytes.

namespace {

/// Calls an action with the index of each field that is carried in the numbering in force.
template <const auto& Payload, class Action>
void ForEachInForce([[maybe_unused]] Action action) {
  constexpr std::size_t kFields = std::tuple_size_v<decltype(Payload.fields)>;
  [&]<std::size_t... Index>(std::index_sequence<Index...>) {
    constexpr bool kDependsOnNumbering =
        (false || ... || (std::get<Index>(Payload.fields).numbering != Trel_Numbering::both));
    [[maybe_unused]] Trel_Numbering inForce = Trel_Numbering::both;
    if constexpr (kDependsOnNumbering) {
      inForce = TCPE_CommManager::GetSupportsMarlo11() ? Trel_Numbering::current : Trel_Numbering::legacy;
    }
    (
        [&] {
          constexpr Trel_Numbering kNumbering = std::get<Index>(Payload.fields).numbering;
          if (kNumbering == Trel_Numbering::both || kNumbering == inForce) {
            action(std::integral_constant<std::size_t, Index>());
          }
        }(),
        ...);
  }
  (std::make_index_sequence<kFields>());
}

template <const auto& Payload, class Command>
[[gnu::flatten]] void Write(Command& command, char** cursor) {
  char* position = *cursor;
  ForEachInForce<Payload>([&]<std::size_t Index>(std::integral_constant<std::size_t, Index>) {
    constexpr auto kField = std::get<Index>(Payload.fields);
    Trel_WriteField(command, kField, command, &position);
  });
  *cursor = position;
}

template <const auto& Payload, class Command>
[[gnu::flatten]] void Read(Command& command, char** cursor) {
  char* position = *cursor;
  ForEachInForce<Payload>([&]<std::size_t Index>(std::integral_constant<std::size_t, Index>) {
    constexpr auto kField = std::get<Index>(Payload.fields);
    if (kField.since == 0 || command.GetReceivedRevision() >= kField.since) {
      Trel_ReadField(command, kField, command, &position);
    } else if constexpr (requires { kField.otherwise; }) {
      decltype(kField)::Codec::Set(command.*kField.member, kField.otherwise);
    }
  });
  *cursor = position;
}

template <const auto& Payload, class Command>
void Print(const Command& command, std::ostream& out) {
  const char* separator = "";
  ForEachInForce<Payload>([&]<std::size_t Index>(std::integral_constant<std::size_t, Index>) {
    Trel_PrintField(std::get<Index>(Payload.fields), command, out << separator);
    separator = " ";
  });
}

template <class Command, const auto& Payload>
constexpr auto Describe() {
  return Trel_DescribePayload(Payload, []<std::size_t Index>(std::integral_constant<std::size_t, Index>) {
    return Trel_FieldAccess{
        [](const Trel_Command& command, std::size_t element) {
          return Trel_GetGeneral(std::get<Index>(Payload.fields), static_cast<const Command&>(command), element);
        },
        [](Trel_Command& command, std::size_t element, const Trel_FieldValue& value) {
          return Trel_SetGeneral(std::get<Index>(Payload.fields), static_cast<Command&>(command), element, value);
        }};
  });
}

} // namespace

template <class Derived>
Trel_DescribedCommand<Derived>::Trel_DescribedCommand()
    : Trel_Command(Derived::kTraits.currentOnly || !Derived::kTraits.numbered ? eTrel_Cmd_Invalid
                                                                              : Derived::kIdentifiers.legacy,
                   Derived::kTraits.revision) {
  if (Derived::kTraits.numbered && (Derived::kTraits.currentOnly || IsCurrentNumbering())) {
    SetCommandType(Derived::kIdentifiers.current);
  }
}

template <class Derived>
Trel_eCmd Trel_DescribedCommand<Derived>::GetCommandID() {
  return IsCurrentNumbering() ? Derived::kIdentifiers.current : Derived::kIdentifiers.legacy;
}

template <class Derived>
const char* Trel_DescribedCommand<Derived>::GetCommandName() const {
  return Derived::kIdentifiers.name;
}

template <class Derived>
bool Trel_DescribedCommand<Derived>::IsSynchronous() const {
  return Derived::kTraits.synchronous;
}

template <class Derived>
bool Trel_DescribedCommand<Derived>::DontLogCommand() const {
  return !Derived::kTraits.logged;
}

template <class Derived>
void Trel_DescribedCommand<Derived>::PrepareTransmitCommand(char** cursor) {
  Write<Derived::kCommand>(static_cast<Derived&>(*this), cursor);
}

template <class Derived>
void Trel_DescribedCommand<Derived>::PrepareReceiveCommand(char** cursor) {
  Read<Derived::kCommand>(static_cast<Derived&>(*this), cursor);
}

template <class Derived>
void Trel_DescribedCommand<Derived>::PrepareTransmitReply(char** cursor) {
  Write<Derived::kReply>(static_cast<Derived&>(*this), cursor);
}

template <class Derived>
void Trel_DescribedCommand<Derived>::PrepareReceiveReply(char** cursor) {
  Read<Derived::kReply>(static_cast<Derived&>(*this), cursor);
}

template <class Derived>
void Trel_DescribedCommand<Derived>::GetSendDebugInfo(std::ostream& out) const {
  Print<Derived::kCommand>(static_cast<const Derived&>(*this), out);
}

template <class Derived>
void Trel_DescribedCommand<Derived>::GetReplyDebugInfo(std::ostream& out) const {
  Print<Derived::kReply>(static_cast<const Derived&>(*this), out);
}

template <class Derived>
const Trel_CommandDescription* Trel_DescribedCommand<Derived>::GetDescription() const {
  return &Describe();
}

template <class Derived>
const Trel_CommandDescription& Trel_DescribedCommand<Derived>::Describe() {
  static constexpr auto command = ::Describe<Derived, Derived::kCommand>();
  static constexpr auto reply = ::Describe<Derived, Derived::kReply>();
  static constexpr Trel_CommandDescription description{Derived::kIdentifiers, Derived::kTraits, command, reply};
  return description;
}

// Each destructor brings its class's table of virtual operations with it.
#define TREL_ROW(Name, Current, Legacy)                                                                                \
  template class Trel_DescribedCommand<Trel_Cmd_##Name>;                                                               \
  Trel_Cmd_##Name::~Trel_Cmd_##Name() = default;
TREL_COMMAND_TABLE(TREL_ROW)
#undef TREL_ROW
