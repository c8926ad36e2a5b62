#pragma once

#include <trel/Trel_Command.h>
#include <trel/Trel_Export.h>
#include <trel/Trel_Field.h>

#include <cstdint>
#include <iosfwd>

/// What is particular to a command class, beside its fields.
struct Trel_CommandTraits {
  std::uint8_t revision = 0; ///< payload revision of the frames that this class is sent in
  bool synchronous = false;  ///< the sender waits for a reply
  bool logged = true;
  bool currentOnly = false; ///< exists in the current numbering alone
  bool numbered = true;     ///< false: the constructor sets no type, the engine does when it sends
};

/// Makes a command class from its description: name, identifiers, payload hooks and debug text. All of that stands in
/// the library, so that what travels is as the library has it, and not as it was when a host was compiled.
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
class TREL_EXPORT Trel_DescribedCommand : public Trel_Command {
public:
  using Self = Derived;

  static constexpr Trel_Payload<> kCommand{};
  static constexpr Trel_Payload<> kReply{};

  /// The class's identifier in the numbering in force, asked anew at each call.
  static Trel_eCmd GetCommandID();

  const char* GetCommandName() const override;
  bool IsSynchronous() const override;
  bool DontLogCommand() const override;
  void PrepareTransmitCommand(char** cursor) override;
  void PrepareReceiveCommand(char** cursor) override;
  void PrepareTransmitReply(char** cursor) override;
  void PrepareReceiveReply(char** cursor) override;
  void GetSendDebugInfo(std::ostream& out) const override;
  void GetReplyDebugInfo(std::ostream& out) const override;

  const Trel_CommandDescription* GetDescription() const override;
  static const Trel_CommandDescription& Describe();

protected:
  Trel_DescribedCommand();
};

#define TREL_ROW(Name, Current, Legacy) extern template class Trel_DescribedCommand<class Trel_Cmd_##Name>;
TREL_COMMAND_TABLE(TREL_ROW)
#undef TREL_ROW

/// Names the class and says what is particular to it, as designated initialisers of Trel_CommandTraits.
#define TREL_COMMAND(Name, ...)                                                                                        \
public:                                                                                                                \
  static constexpr Trel_CommandIdentifiers kIdentifiers = Trel_Identifiers::Name;                                      \
  static constexpr Trel_CommandTraits kTraits{__VA_ARGS__};                                                            \
  /** Numbers 0, flags false, texts empty. */                                                                          \
  Trel_Cmd_##Name() = default;                                                                                         \
  Trel_Cmd_##Name(const Trel_Cmd_##Name& other) = default;                                                             \
  Trel_Cmd_##Name(Trel_Cmd_##Name&& other) = default;                                                                  \
  Trel_Cmd_##Name& operator=(const Trel_Cmd_##Name& other) = default;                                                  \
  Trel_Cmd_##Name& operator=(Trel_Cmd_##Name&& other) = default;                                                       \
  ~Trel_Cmd_##Name() override;
