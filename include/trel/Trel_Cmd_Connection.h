#pragma once

#include <trel/Trel_DescribedCommand.h>

/// Commands that build the link, and the limits of its size.

/// Introduces a system that connects. The engine itself sends it; a host receives it before any other command of the
/// peer.
class TREL_EXPORT Trel_Cmd_Connect : public Trel_DescribedCommand<Trel_Cmd_Connect> {
  TREL_COMMAND(Connect, .synchronous = false)
  TREL_FIELD(Trel_I32<>, UniqueIDFrom, "identifier of the connecting system")
  TREL_FIELD(Trel_I32<>, UniqueIDTo, "identifier of the system it connects to; 0 unless known")
  TREL_FIELD(Trel_SystemName, SatelliteName, "name of the connecting system")
  TREL_FIELD(Trel_HostName, Hostname, "host name of the connecting system")
  static constexpr Trel_Payload kCommand{
      Trel_In(Trel_Numbering::current, kUniqueIDFrom), Trel_In(Trel_Numbering::current, kUniqueIDTo), kSatelliteName,
      Trel_In(Trel_Numbering::current, kHostname), Trel_In(Trel_Numbering::legacy, Trel_WithWidth<30>(kHostname))};
};

/// Ends the connection sequence; returns when the master has acknowledged.
class TREL_EXPORT Trel_Cmd_ConnectComplete : public Trel_DescribedCommand<Trel_Cmd_ConnectComplete> {
  TREL_COMMAND(ConnectComplete, .synchronous = true)
};

/// Ends a connection. Its type is set when it is sent.
class TREL_EXPORT Trel_Cmd_Disconnect : public Trel_DescribedCommand<Trel_Cmd_Disconnect> {
  TREL_COMMAND(Disconnect, .synchronous = false, .numbered = false)
};

/// Asks a master to admit another number of satellites.
class TREL_EXPORT Trel_Cmd_RequestMaxSatellites : public Trel_DescribedCommand<Trel_Cmd_RequestMaxSatellites> {
  TREL_COMMAND(RequestMaxSatellites, .synchronous = false)
  TREL_FIELD(Trel_I32<>, MaxSatellitesRequested, "satellites to admit; above 128 counts as 128")
  static constexpr Trel_Payload kCommand{kMaxSatellitesRequested};
};

/// Asks how many satellites a master admits.
class TREL_EXPORT Trel_Cmd_GetMaxSatellites : public Trel_DescribedCommand<Trel_Cmd_GetMaxSatellites> {
  TREL_COMMAND(GetMaxSatellites, .synchronous = true)
  TREL_FIELD(Trel_I32<>, MaxSatellites, "satellites that the system admits")
  static constexpr Trel_Payload kReply{kMaxSatellites};
};

/// Asks how many satellites a system could admit at the most.
class TREL_EXPORT Trel_Cmd_GetMaxSatellitesSupported
    : public Trel_DescribedCommand<Trel_Cmd_GetMaxSatellitesSupported> {
  TREL_COMMAND(GetMaxSatellitesSupported, .synchronous = true)
  TREL_FIELD(Trel_I32<>, MaxSatellitesSupported, "satellites that the system supports")
  static constexpr Trel_Payload kReply{kMaxSatellitesSupported};
};
