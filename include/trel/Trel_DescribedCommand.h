#pragma once

#include <trel/Trel_Command.h>
#include <trel/Trel_Field.h>

#include <cstddef>
#include <ostream>
#include <tuple>
#include <type_traits>

/// Makes a command class from its description: name, identifiers, payload hooks and debug text.
///
/// `Derived` states TREL_COMMAND, and its fields: one that is a whole payload with TREL_COMMAND_FIELD or
/// TREL_REPLY_FIELD, others with TREL_FIELD, and then the payloads that they make up as `kCommand` and `kReply`:
///
///     class Trel_Cmd_StartPlayback : public Trel_DescribedCommand<Trel_Cmd_StartPlayback> {
///       TREL_COMMAND(StartPlayback, .synchronous = false)
///       TREL_COMMAND_FIELD(Trel_I64, StartAtRunningTime, "running time of the requested start, us")
///     };
///
///     class Trel_Cmd_GetDocumentStartAndLength : public Trel_DescribedCommand<Trel_Cmd_GetDocumentStartAndLength> {
///       TREL_COMMAND(GetDocumentStartAndLength, .synchronous = true)
///       TREL_FIELD(Trel_I64, Start, "timeline position of the start")
///       TREL_FIELD(Trel_I64, Length, "length of the document")
///       static constexpr Trel_Payload kReply{kStart, kLength};
///     };
template <class Derived>
class Trel_DescribedCommand : public Trel_Command {
public:
  using Self = Derived;

  static constexpr Trel_Payload<> kCommand{};
  static constexpr Trel_Payload<> kReply{};

  /// The class's identifier in the numbering in force, asked anew at each call.
  static Trel_eCmd GetCommandID() {
    return IsCurrentNumbering() ? Derived::kIdentifiers.current : Derived::kIdentifiers.legacy;
  }

  const char* GetCommandName() const override { return Derived::kIdentifiers.name; }
  bool IsSynchronous() const override { return Derived::kTraits.synchronous; }
  bool DontLogCommand() const override { return !Derived::kTraits.logged; }
  void PrepareTransmitCommand(char** cursor) override { Write<Derived::kCommand>(cursor); }
  void PrepareReceiveCommand(char** cursor) override { Read<Derived::kCommand>(cursor); }
  void PrepareTransmitReply(char** cursor) override { Write<Derived::kReply>(cursor); }
  void PrepareReceiveReply(char** cursor) override { Read<Derived::kReply>(cursor); }
  void GetSendDebugInfo(std::ostream& out) const override { Print<Derived::kCommand>(out); }
  void GetReplyDebugInfo(std::ostream& out) const override { Print<Derived::kReply>(out); }

  const Trel_CommandDescription* GetDescription() const override { return &Describe(); }
  static const Trel_CommandDescription& Describe() {
    static constexpr auto command = DescribePayload<Derived::kCommand>();
    static constexpr auto reply = DescribePayload<Derived::kReply>();
    static constexpr Trel_CommandDescription description{Derived::kIdentifiers, Derived::kTraits, command, reply};
    return description;
  }

protected:
  Trel_DescribedCommand()
      : Trel_Command(Derived::kTraits.currentOnly || !Derived::kTraits.numbered ? eTrel_Cmd_Invalid
                                                                                : Derived::kIdentifiers.legacy,
                     Derived::kTraits.revision) {
    if (Derived::kTraits.numbered && (Derived::kTraits.currentOnly || IsCurrentNumbering())) {
      SetCommandType(Derived::kIdentifiers.current);
    }
  }

  template <const auto& Payload>
  void Write(char** cursor) {
    char* position = *cursor;
    ForEachInForce<Payload>([&](const auto& field) { field.Write(*this, ThisDerived(), &position); });
    *cursor = position;
  }
  template <const auto& Payload>
  void Read(char** cursor) {
    char* position = *cursor;
    ForEachInForce<Payload>([&](const auto& field) {
      if (GetReceivedRevision() >= field.since) {
        field.Read(*this, ThisDerived(), &position);
      } else if constexpr (requires { field.otherwise; }) {
        std::remove_cvref_t<decltype(field)>::Codec::Set(ThisDerived().*field.member, field.otherwise);
      }
    });
    *cursor = position;
  }
  template <const auto& Payload>
  void Print(std::ostream& out) const {
    const char* separator = "";
    ForEachInForce<Payload>([&](const auto& field) {
      field.Print(static_cast<const Derived&>(*this), out << separator);
      separator = " ";
    });
  }

private:
  template <const auto& Payload>
  static constexpr auto DescribePayload() {
    return Payload.Describe([]<std::size_t Index>(std::integral_constant<std::size_t, Index>) {
      return Trel_FieldAccess{&GetGeneral<Payload, Index>, &SetGeneral<Payload, Index>};
    });
  }
  template <const auto& Payload, std::size_t Index>
  static Trel_FieldValue GetGeneral(const Trel_Command& command, std::size_t element) {
    return std::get<Index>(Payload.fields).GetGeneral(static_cast<const Derived&>(command), element);
  }
  template <const auto& Payload, std::size_t Index>
  static bool SetGeneral(Trel_Command& command, std::size_t element, const Trel_FieldValue& value) {
    return std::get<Index>(Payload.fields).SetGeneral(static_cast<Derived&>(command), element, value);
  }

  Derived& ThisDerived() { return static_cast<Derived&>(*this); }

  template <const auto& Payload, class Action>
  static void ForEachInForce(Action action) {
    [[maybe_unused]] Trel_Numbering other = Trel_Numbering::legacy;
    if constexpr (Payload.DependsOnNumbering()) {
      other = IsCurrentNumbering() ? Trel_Numbering::legacy : Trel_Numbering::current;
    }
    [[maybe_unused]] const auto visit = [&](const auto& field) {
      if (field.numbering == Trel_Numbering::both || field.numbering != other) {
        action(field);
      }
    };
    Payload.ForEach(visit);
  }
};

/// Names the class and says what is particular to it, as designated initialisers of Trel_CommandTraits.
#define TREL_COMMAND(Name, ...)                                                                                        \
public:                                                                                                                \
  static constexpr Trel_CommandIdentifiers kIdentifiers = Trel_Identifiers::Name;                                      \
  static constexpr Trel_CommandTraits kTraits{__VA_ARGS__};                                                            \
  /** Numbers 0, flags false, texts empty. */                                                                          \
  Trel_Cmd_##Name() = default;
