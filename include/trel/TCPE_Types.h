#pragma once

#include <cstdint>

/// Numbers of the communication engine that travel between systems. Never renumber an enumerator.

/// Command type as the engine knows it, signed; 0 is the invalid command.
using TCPE_eCmd = std::int32_t;

/// Role of a system. Values from 3 to 255 belong to the host.
enum ETCPE_SystemType : std::int32_t {
  eTCPE_SystemType_None = 0,
  eTCPE_SystemType_Master = 1,
  eTCPE_SystemType_Satellite = 2,
};

/// What became of a command. An error reply carries one of these; others arise at the sender.
enum TCPE_CommErr : std::uint16_t {
  eTCPE_CommErr_None = 0,
  eTCPE_CommErr_NotInitialized = 1,     ///< the engine is not running, or it is being terminated
  eTCPE_CommErr_NotConnected = 2,       ///< the destination is not connected
  eTCPE_CommErr_ConnectionLost = 3,     ///< the connection ended before the reply came
  eTCPE_CommErr_TimedOut = 4,           ///< no reply within the time-out
  eTCPE_CommErr_NoHandler = 5,          ///< nobody handles this command at the destination
  eTCPE_CommErr_UnknownCommand = 6,     ///< the destination has no command of this type
  eTCPE_CommErr_MalformedPayload = 7,   ///< a payload was too short or did not make sense
  eTCPE_CommErr_QueueFull = 8,          ///< a bounded queue on the way had no room
  eTCPE_CommErr_NotInThisNumbering = 9, ///< the command does not exist in the numbering in force
  eTCPE_CommErr_NoIdentifier = 10,      ///< the command has type 0 and its class has no identifier
  eTCPE_CommErr_PayloadTooLong = 11,    ///< the payload does not fit in a frame
  eTCPE_CommErr_WrongThread = 12,       ///< a synchronous send from the engine's network thread
  eTCPE_CommErr_NotSendable = 13,       ///< a command that only the engine itself sends (connect)
  eTCPE_CommErr_NotAllowed = 14,        ///< connection refused: the host does not admit this address
  eTCPE_CommErr_Full = 15,              ///< connection refused: no room for another system
  eTCPE_CommErr_OtherNumbering = 16,    ///< connection refused: the systems use different numberings
  eTCPE_CommErr_Authentication = 17,    ///< connection refused: the shared secret was not proved
  eTCPE_CommErr_DuplicateAddress = 18,  ///< connection refused: a live system with this address is connected already
  eTCPE_CommErr_AlreadyConnected = 19,  ///< connection refused: the other one of two simultaneous ones survives
  eTCPE_CommErr_HandlerFailed = 20,     ///< the handler at the destination threw an exception
};

/// Why a connection ended, or was not admitted; given to the host's network-error callback.
enum ETCPE_NetworkError : std::int32_t {
  eNetworkError_None = 0,
  eNetworkError_ConnectionLost = 1,   ///< closed by the network or the peer, or silent for too long
  eNetworkError_MalformedData = 2,    ///< the peer sent bytes that are no frame
  eNetworkError_NotAllowed = 3,       ///< the peer does not admit this system
  eNetworkError_Full = 4,             ///< the peer has no room for another system
  eNetworkError_OtherNumbering = 5,   ///< the peer uses the other command numbering
  eNetworkError_Authentication = 6,   ///< the shared secret was not proved
  eNetworkError_DuplicateAddress = 7, ///< the peer is linked with another live system of this address
  eNetworkError_PeerTooSlow = 8,      ///< one of the two did not take, or not finish, what the other one sent
  eNetworkError_Flood = 9,            ///< strangers keep the places for new connections taken; no connection has ended
};

/// What TCPE_CommManager::Initialize answers.
enum ETCPE_Status : std::int32_t {
  eTCPE_Status_Success = 0,
  eTCPE_Status_AlreadyInitialized = 1,
  eTCPE_Status_AddressNotLocal = 2,    ///< no adaptor of this machine that is up has the preferred address
  eTCPE_Status_NoAdaptor = 3,          ///< no usable network adaptor at all
  eTCPE_Status_PortInUse = 4,          ///< another process listens on the communication port
  eTCPE_Status_NoCommTask = 5,         ///< CreateCommTask gave none
  eTCPE_Status_SystemError = 6,        ///< the operating system refused a socket or a thread
  eTCPE_Status_DiscoveryPortInUse = 7, ///< another program has the discovery port and does not share it
  eTCPE_Status_SharedSecret = 8,       ///< the file of the shared secret cannot be used
};
