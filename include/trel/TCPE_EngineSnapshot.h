#pragma once

#include <trel/TCPE_Counters.h>
#include <trel/TCPE_Types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// What passed in one direction.
struct TCPE_TrafficCount {
  std::uint64_t frames = 0; ///< commands and replies, without handshakes and heartbeats
  std::uint64_t bytes = 0;  ///< everything on the connection
};

/// What became of the commands that went in one direction; connect and disconnect commands are not counted. At a moment
/// at which nobody sends, commands = finished + refused + in flight for those that were received, and commands =
/// finished + in flight + abandoned for those that were sent.
struct TCPE_CommandCount {
  std::uint64_t commands = 0;  ///< sent, or kept to be sent; received: arrived
  std::uint64_t finished = 0;  ///< sent: as the peer has told, each second at the latest; received: handled
  std::uint64_t refused = 0;   ///< sent: failed before they were sent, and not among the commands; received: dropped
  std::uint64_t inFlight = 0;  ///< sent: out or kept; received: waiting or running
  std::uint64_t abandoned = 0; ///< sent: in flight when a connection ended, or without a reply; 0 for received ones
};

/// How long synchronous commands took from the call to the arrival of the reply, an error reply included. Times are
/// microseconds, kept in classes that are an eighth of an octave wide: below 16 us they are exact, above within 7 %.
struct TCPE_RoundTripTimes {
  std::uint64_t count = 0;
  std::int64_t median = 0;       ///< 0 while there are none
  std::int64_t percentile99 = 0; ///< 99 of 100 took no longer
};

/// Received commands of one peer on their way through the host's handlers.
struct TCPE_HandlerLoad {
  std::size_t waiting = 0;          ///< commands, and network errors, that have not started
  std::size_t running = 0;          ///< with host-pumped delivery those that the host has in hand
  std::size_t waitingForOthers = 0; ///< started, and waiting for the reply of another system
};

/// What the engine knows of a system that is connected, or was. Totals are those of the address since Initialize,
/// through all its connections; one that left the link long ago may have been forgotten, and begins anew.
struct TCPE_PeerSnapshot {
  std::uint32_t address = 0; ///< host order
  /// From the connect command of the peer, or from SetPeerName, as a link session does for all systems of its link.
  std::string name;
  ETCPE_SystemType systemType = eTCPE_SystemType_None; ///< as the peer's last frame told

  bool isConnected = false;
  bool isOpenedByPeer = false; ///< the present connection, or the last one
  /// Both ends of the present connection, or the last one, proved knowledge of the shared secret.
  bool isAuthenticated = false;
  std::int64_t connectedFor = 0; ///< age of the present connection, us; 0 without one
  std::int64_t silentFor = 0;    ///< since the last byte from the peer, us; 0 without a connection
  std::int64_t goneFor = 0;      ///< since the last connection ended, us; 0 while there is one

  std::size_t outboundBytes = 0;  ///< that wait to be sent
  std::size_t pendingCalls = 0;   ///< senders of synchronous commands that wait for the reply
  std::size_t waitingSenders = 0; ///< of asynchronous commands, who wait until the peer has finished others
  TCPE_HandlerLoad handlers;

  std::uint64_t connections = 0; ///< since Initialize; all but the first are reconnections
  std::uint64_t losses = 0;      ///< connections that ended with a network error
  ETCPE_NetworkError lastLoss = eNetworkError_None;
  bool isLost = false; ///< the last connection ended with a network error, and there is none now
  TCPE_TrafficCount sent;
  TCPE_TrafficCount received;
  /// A peer that does not tell what it has finished is taken to have finished what was sent.
  TCPE_CommandCount sentCommands;
  TCPE_CommandCount receivedCommands;
  TCPE_RoundTripTimes roundTrips;
  /// Commands for this peer that failed, by TCPE_CommErr, whether the error arose here (a time-out) or came as an
  /// error reply. Entry 0 has the error replies whose number is none of TCPE_CommErr.
  std::array<std::uint64_t, 32> errors{};
};

/// What the engine knows at one moment. Each value is right by itself; they are not taken at the same instant.
struct TCPE_EngineSnapshot {
  bool isInitialized = false;
  std::uint32_t address = 0; ///< of this system, host order
  std::string adaptorName;   ///< that the address belongs to
  std::uint16_t communicationPort = 0;
  std::int64_t runningFor = 0; ///< since Initialize, us of the raw clock as all ages here
  std::size_t secrets = 0;     ///< that are accepted; two while the shared secret is being changed
  bool isSecretMadeUp = false; ///< one of them, by people
  TCPE_Counters counters;
  /// Calls of the host's handlers, callbacks, hooks, logs and taps that ended with an exception; of the whole process,
  /// since it began.
  std::uint64_t hostFailures = 0;
  /// By address: the connected ones, and of the others the last 128 that left.
  std::vector<TCPE_PeerSnapshot> peers;
};
