#pragma once

#include <trel/TCPE_Types.h>
#include <trel/Trel_DescribedCommand.h>
#include <trel/Trel_System.h>

#include <vector>

/// Commands that say who is who.

/// How a system travels in a list of systems. A host name is cut to 29 characters.
struct Trel_SystemEntry {
  using Record = Trel_System;
  template <class Codec>
  using Property = Trel_Property<TCPE_System, Codec>;

  static constexpr Trel_Payload kFields{
      Property<Trel_IPv4>{{"IPAddress", "address"}, &TCPE_System::GetIPAddress, &TCPE_System::SetIPAddress},
      Property<Trel_SystemName>{{"SystemName", "name"}, &TCPE_System::GetSystemName, &TCPE_System::SetSystemName},
      Property<Trel_HostName::WithWidth<30>>{
          {"Hostname", "host name"}, &TCPE_System::GetHostName, &TCPE_System::SetHostName},
      Property<Trel_I32<ETCPE_SystemType>>{
          {"SystemType", "role, ETCPE_SystemType"}, &TCPE_System::GetSystemType, &TCPE_System::SetSystemType},
      Property<Trel_I32<>>{
          {"OrderNumber", "place in the order"}, &TCPE_System::GetOrderNumber, &TCPE_System::SetOrderNumber}};
};

/// Tells which systems are linked. A frame has room for 227; a longer list is not sent, with the error that says so.
/// This command allocates.
class TREL_EXPORT Trel_Cmd_ListSystems : public Trel_DescribedCommand<Trel_Cmd_ListSystems> {
  TREL_COMMAND(ListSystems, .revision = 1)
  TREL_COMMAND_FIELD(Trel_List<Trel_SystemEntry>, Systems, "the linked systems")
};

/// Asks for the name of a system.
class TREL_EXPORT Trel_Cmd_GetName : public Trel_DescribedCommand<Trel_Cmd_GetName> {
  TREL_COMMAND(GetName, .synchronous = true)
  TREL_REPLY_FIELD(Trel_SystemName, Name, "name of the system")
};

/// Asks for the role of a system.
class TREL_EXPORT Trel_Cmd_GetType : public Trel_DescribedCommand<Trel_Cmd_GetType> {
  TREL_COMMAND(GetType, .synchronous = true)
  TREL_REPLY_FIELD(Trel_I32<ETCPE_SystemType>, Type, "role of the system, ETCPE_SystemType")
};

/// Asks for all that identifies a system.
class TREL_EXPORT Trel_Cmd_GetSystemInformation : public Trel_DescribedCommand<Trel_Cmd_GetSystemInformation> {
  TREL_COMMAND(GetSystemInformation, .synchronous = true)
  TREL_FIELD(Trel_SystemName, Name, "name of the system")
  TREL_FIELD(Trel_HostName, Hostname, "host name of the system")
  TREL_FIELD(Trel_I32<ETCPE_SystemType>, Type, "role of the system, ETCPE_SystemType")
  TREL_FIELD(Trel_I32<>, OrderNumber, "place of the system in the order")
  TREL_FIELD(Trel_I32<>, UniqueID, "identifier of the system")
  static constexpr Trel_Payload kReply{kName, kHostname, kType, kOrderNumber, Trel_InCurrent(kUniqueID)};
};

/// Tells a system its name.
class TREL_EXPORT Trel_Cmd_SetSystemName : public Trel_DescribedCommand<Trel_Cmd_SetSystemName> {
  TREL_COMMAND(SetSystemName, .synchronous = false)
  TREL_COMMAND_FIELD(Trel_SystemName, SystemName, "name of the system")
};

/// Tells which system is the master.
class TREL_EXPORT Trel_Cmd_SetMasterSystem : public Trel_DescribedCommand<Trel_Cmd_SetMasterSystem> {
  TREL_COMMAND(SetMasterSystem, .synchronous = false)
  TREL_COMMAND_FIELD(Trel_IPv4, IPAddress, "address of the master")

  explicit Trel_Cmd_SetMasterSystem(std::uint32_t masterIPAddress) : mIPAddress(masterIPAddress) {}
};

/// Places a system, named by its identifier, in the legacy numbering by its address, in the order.
class TREL_EXPORT Trel_Cmd_SetOrderNumber : public Trel_DescribedCommand<Trel_Cmd_SetOrderNumber> {
  TREL_COMMAND(SetOrderNumber, .synchronous = false)
  TREL_FIELD(Trel_I32<>, OrderNumber, "place in the order")
  TREL_FIELD(Trel_I32<>, UniqueID, "identifier of the system")
  TREL_FIELD(Trel_IPv4, IPAddress, "address of the system")
  static constexpr Trel_Payload kCommand{kOrderNumber, Trel_InCurrent(kUniqueID), Trel_InLegacy(kIPAddress)};

  /// The identifier stays 0.
  Trel_Cmd_SetOrderNumber(std::int32_t orderNumber, std::uint32_t systemIPAddress)
      : mOrderNumber(orderNumber), mIPAddress(systemIPAddress) {}
};
