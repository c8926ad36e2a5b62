#pragma once

#include <trel/Trel_DescribedCommand.h>

/// Commands that ask for roles and hand them over.

/// Asks for control of the transport.
class TREL_EXPORT Trel_Cmd_RequestControl : public Trel_DescribedCommand<Trel_Cmd_RequestControl> {
  TREL_COMMAND(RequestControl, .synchronous = true)
  TREL_REPLY_FIELD(Trel_Bool, HasControl, "the asking system has control now")
};

/// Tells which system controls the transport: by its identifier, in the legacy numbering by its address; returns when
/// it has been acknowledged.
class TREL_EXPORT Trel_Cmd_SystemInControl : public Trel_DescribedCommand<Trel_Cmd_SystemInControl> {
  TREL_COMMAND(SystemInControl, .synchronous = true)
  TREL_FIELD(Trel_I32<>, UniqueID, "identifier of the system in control")
  TREL_FIELD(Trel_IPv4, SystemInControl, "address of the system in control")
  static constexpr Trel_Payload kCommand{Trel_InCurrent(kUniqueID), Trel_InLegacy(kSystemInControl)};
};

/// Asks a satellite to link, or to unlink.
class TREL_EXPORT Trel_Cmd_RequestLink : public Trel_DescribedCommand<Trel_Cmd_RequestLink> {
  TREL_COMMAND(RequestLink, .synchronous = false)
  TREL_COMMAND_FIELD(Trel_Bool, Link, "link, or unlink")

  explicit Trel_Cmd_RequestLink(bool link) : mLink(link) {}
};

/// Asks a system to go on line, or off.
class TREL_EXPORT Trel_Cmd_RequestOnline : public Trel_DescribedCommand<Trel_Cmd_RequestOnline> {
  TREL_COMMAND(RequestOnline, .synchronous = false)
  TREL_COMMAND_FIELD(Trel_Bool, Online, "go on line, or off")

  explicit Trel_Cmd_RequestOnline(bool online) : mOnline(online) {}
};
