#pragma once

#include <trel/TCPE_Types.h>
#include <trel/Trel_DescribedCommand.h>

/// Commands that build the link, and the limits of its size.

/// Asks the systems of the network whether they can be linked; answered outside connections.
class TREL_EXPORT Trel_Cmd_DiscoveryRequest : public Trel_DescribedCommand<Trel_Cmd_DiscoveryRequest> {
  TREL_COMMAND(DiscoveryRequest, .synchronous = false)
};

/// Asks the masters of the network to name themselves; answered outside connections.
class TREL_EXPORT Trel_Cmd_DiscoverMasterSystems : public Trel_DescribedCommand<Trel_Cmd_DiscoverMasterSystems> {
  TREL_COMMAND(DiscoverMasterSystems, .synchronous = false)
};

/// Introduces a system that connects. The engine itself sends it; a host receives it before any other command of the
/// peer.
class TREL_EXPORT Trel_Cmd_Connect : public Trel_DescribedCommand<Trel_Cmd_Connect> {
  TREL_COMMAND(Connect, .synchronous = false)
  TREL_FIELD(Trel_I32<>, UniqueIDFrom, "identifier of the connecting system")
  TREL_FIELD(Trel_I32<>, UniqueIDTo, "identifier of the system it connects to; 0 unless known")
  TREL_FIELD(Trel_SystemName, SatelliteName, "name of the connecting system")
  TREL_FIELD(Trel_HostName, Hostname, "host name of the connecting system")
  static constexpr Trel_Payload kCommand{Trel_InCurrent(kUniqueIDFrom), Trel_InCurrent(kUniqueIDTo), kSatelliteName,
                                         Trel_InCurrent(kHostname), Trel_InLegacy(Trel_WithWidth<30>(kHostname))};
};

/// Ends the connection sequence; returns when the master has acknowledged.
class TREL_EXPORT Trel_Cmd_ConnectComplete : public Trel_DescribedCommand<Trel_Cmd_ConnectComplete> {
  TREL_COMMAND(ConnectComplete, .synchronous = true)
};

/// Tells a satellite to connect to another one.
class TREL_EXPORT Trel_Cmd_ConnectTo : public Trel_DescribedCommand<Trel_Cmd_ConnectTo> {
  TREL_COMMAND(ConnectTo, .synchronous = false)
  TREL_FIELD(Trel_IPv4, ConnectToIPAddress, "address of the system to connect to")
  TREL_FIELD(Trel_Port, ConnectToPort, "its communication port")
  TREL_FIELD(Trel_I32<>, UniqueSystemID, "its identifier")
  TREL_FIELD(Trel_SystemName, SystemName, "its name")
  TREL_FIELD(Trel_HostName, Hostname, "its host name")
  TREL_FIELD(Trel_I32<ETCPE_SystemType>, SystemType, "its role, ETCPE_SystemType")
  TREL_FIELD(Trel_U8, MajorVersion, "its protocol version, first part")
  TREL_FIELD(Trel_U8, MinorVersion, "its protocol version, second part")
  static constexpr Trel_Payload kCommand{
      kConnectToIPAddress,           Trel_InCurrent(kConnectToPort), Trel_InCurrent(kUniqueSystemID),
      Trel_InCurrent(kSystemName),   Trel_InCurrent(kHostname),      Trel_InCurrent(kSystemType),
      Trel_InCurrent(kMajorVersion), Trel_InCurrent(kMinorVersion)};
};

/// Answers ConnectTo: whether the connection stands.
class TREL_EXPORT Trel_Cmd_ConnectToComplete : public Trel_DescribedCommand<Trel_Cmd_ConnectToComplete> {
  TREL_COMMAND(ConnectToComplete, .revision = 1, .currentOnly = true)
  TREL_FIELD(Trel_Bool, Success, "the connection stands")
  TREL_FIELD(Trel_IPv4, ConnectionIDIP, "address of the system connected to")
  TREL_FIELD(Trel_Port, ConnectionIDPort, "port of the system connected to")
  static constexpr Trel_Payload kCommand{kSuccess, kConnectionIDIP, kConnectionIDPort};
};

/// Announces a connection to the system that is to be connected to.
class TREL_EXPORT Trel_Cmd_DoConnectTo : public Trel_DescribedCommand<Trel_Cmd_DoConnectTo> {
  TREL_COMMAND(DoConnectTo, .revision = 1, .currentOnly = true)
  TREL_FIELD(Trel_SystemName, SystemName, "name of the connecting system")
  TREL_FIELD(Trel_HostName, Hostname, "host name of the connecting system")
  TREL_FIELD(Trel_I32<>, UniqueSystemIDFrom, "identifier of the connecting system")
  TREL_FIELD(Trel_I32<>, UniqueSystemIDTo, "identifier of the system it connects to")
  static constexpr Trel_Payload kCommand{kSystemName, kHostname, kUniqueSystemIDFrom, kUniqueSystemIDTo};
};

/// Answers DoConnectTo.
class TREL_EXPORT Trel_Cmd_DoConnectToComplete : public Trel_DescribedCommand<Trel_Cmd_DoConnectToComplete> {
  TREL_COMMAND(DoConnectToComplete, .currentOnly = true)
  TREL_COMMAND_FIELD(Trel_Bool, Success, "the connection stands")
};

/// Tells a satellite that it is connected to all the others.
class TREL_EXPORT Trel_Cmd_AllConnectionsComplete : public Trel_DescribedCommand<Trel_Cmd_AllConnectionsComplete> {
  TREL_COMMAND(AllConnectionsComplete, .currentOnly = true)
};

/// Tells that a connection could not be made. In the current numbering its identifier is outside the range that
/// receivers accept: they drop it.
class TREL_EXPORT Trel_Cmd_ConnectionFailed : public Trel_DescribedCommand<Trel_Cmd_ConnectionFailed> {
  TREL_COMMAND(ConnectionFailed, .synchronous = false)
  TREL_COMMAND_FIELD(Trel_IPv4, FailedConnectionIPAddress, "address of the system that could not be connected to")
};

/// Ends a connection. Its type is set when it is sent.
class TREL_EXPORT Trel_Cmd_Disconnect : public Trel_DescribedCommand<Trel_Cmd_Disconnect> {
  TREL_COMMAND(Disconnect, .synchronous = false, .numbered = false)
};

/// Tells a system to end its connection to another one, named by its identifier, in the legacy numbering by its
/// address.
class TREL_EXPORT Trel_Cmd_DisconnectFrom : public Trel_DescribedCommand<Trel_Cmd_DisconnectFrom> {
  TREL_COMMAND(DisconnectFrom, .synchronous = false)
  TREL_FIELD(Trel_I32<>, UniqueSystemID, "identifier of the system to disconnect from")
  TREL_FIELD(Trel_IPv4, DisconnectFromIPAddress, "address of the system to disconnect from")
  static constexpr Trel_Payload kCommand{Trel_InCurrent(kUniqueSystemID), Trel_InLegacy(kDisconnectFromIPAddress)};
};

/// Says that the sender is there.
class TREL_EXPORT Trel_Cmd_ImAlive : public Trel_DescribedCommand<Trel_Cmd_ImAlive> {
  TREL_COMMAND(ImAlive, .synchronous = false)
};

/// Asks a master to admit another number of satellites.
class TREL_EXPORT Trel_Cmd_RequestMaxSatellites : public Trel_DescribedCommand<Trel_Cmd_RequestMaxSatellites> {
  TREL_COMMAND(RequestMaxSatellites, .synchronous = false)
  TREL_COMMAND_FIELD(Trel_I32<>, MaxSatellitesRequested, "satellites to admit; above 128 counts as 128")
};

/// Asks how many satellites a master admits.
class TREL_EXPORT Trel_Cmd_GetMaxSatellites : public Trel_DescribedCommand<Trel_Cmd_GetMaxSatellites> {
  TREL_COMMAND(GetMaxSatellites, .synchronous = true)
  TREL_REPLY_FIELD(Trel_I32<>, MaxSatellites, "satellites that the system admits")
};

/// Asks how many satellites a system could admit at the most.
class TREL_EXPORT Trel_Cmd_GetMaxSatellitesSupported
    : public Trel_DescribedCommand<Trel_Cmd_GetMaxSatellitesSupported> {
  TREL_COMMAND(GetMaxSatellitesSupported, .synchronous = true)
  TREL_REPLY_FIELD(Trel_I32<>, MaxSatellitesSupported, "satellites that the system supports")
};
