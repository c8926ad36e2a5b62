#pragma once

#include <trel/TCPE_Types.h>
#include <trel/host/Trel_LinkState.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

/// Something that has happened in the link, as a session tells its host.
///
/// A plain value. Times are microseconds, IPv4 addresses in host order.
struct Trel_LinkEvent {
  enum class Kind : std::uint8_t {
    searching,     ///< for a master on the network
    masterFound,   ///< `system` is the one that was chosen; `others` answered too
    noMaster,      ///< that could be connected to; `others` answered
    connecting,    ///< to `system`
    connectFailed, ///< nobody answers there, or not in time
    connected,     ///< not linked yet
    refused,       ///< by the master; on a master: `system` has been refused. `reason` says why
    orderNumber,   ///< `value` is the place of `system` in the order
    systems,       ///< the list of systems has changed; `value` is their number
    meshConnected, ///< two satellites are connected, `system` and `other`
    meshFailed,    ///< ... could not be, or are no longer
    linked,        ///< `system` is linked; on a satellite: the master, the sequence is complete
    left,          ///< `system` has ended its connection in order, or this one has
    lost,          ///< the connection to `system` is gone
    waiting,       ///< `value` microseconds, before the next attempt
    named,         ///< `system` has another name
    control,       ///< `system` is in control; its address is 0 when that is nobody, or unknown
    otherMaster,   ///< master: `system` is another one on this network; once, and again when it has been away
    leftOut,       ///< `value` events of `system` were not told, because it makes too many
    networkError,  ///< any other network error, `error`

    clock,          ///< `isOn`: the clock of `system` is locked. Not told of the master's
    primed,         ///< this system is ready to play `range`; told to by `system`
    primeFailed,    ///< this system could not get ready
    start,          ///< this system is to make `start`; told to by `system`
    started,        ///< this system has begun, `value` after the moment of `start`
    startFailed,    ///< this system does not make `start`; `reason` says why
    stopped,        ///< this system; told to by `system`
    together,       ///< master: `outcome` of the last start is complete; `others` have been expected to make it
    transport,      ///< `system` is in another state, `state.transport`
    takingPart,     ///< `isOn`: `system` plays when the others do. `value` 1: only its readiness has changed
    online,         ///< `isOn`: `system` is on line
    recording,      ///< `isOn`: `system` records
    soloed,         ///< `isOn`: a track of `system` is soloed
    loopPlay,       ///< `isOn`, for all; told by `system`
    selection,      ///< `range`, for all; told by `system`
    groups,         ///< `groups`, for all; told by `system`
    videoReference, ///< `state.videoReference` of `system`
    dialog,         ///< `words`: on the screen of `system`; empty when it is gone
    dialogClosed,   ///< here, by `system`; `isOn`: with OK
    wishRefused,    ///< `system` wanted `wish` and was refused; `reason` says why
  };

  /// What one system can want of others.
  enum class Wish : std::uint8_t { prime, start, stop, loopPlay, selection, groups, soloAll, takePart, online };

  /// Why, as far as the kind does not say it.
  enum class Reason : std::uint8_t {
    none,
    notAllowed,     ///< the master allows no satellite to connect now
    full,           ///< as many satellites as allowed are linked
    identifierUsed, ///< `other` has the same identifier
    notAdmitted,    ///< the master does not say why: it is full, or allows none
    endedEarly,     ///< the master ended the connection before the link was complete
    isThisSystem,   ///< the address of the master is this system's own
    notInTime,      ///< the sequence was not completed in time
    connectedAnew,  ///< the system has opened a new connection
    addressChanged, ///< the address of this system has changed
    unlinkedHere,   ///< by this system's host
    networkError,   ///< `error`
    cannotConnect,  ///< no connection could be opened; it is tried again

    notInControl,   ///< the system that wanted it
    noSuchTime,     ///< a time that no clock shows
    tooFarAhead,    ///< more than Trel_StartRequest::kFarthest
    notPrimed,      ///< this system
    clockNotLocked, ///< of this system, to the master's
    masterGone,     ///< it was agreed in the running time of a master that is gone
    declined,       ///< by this system's host, `words`; the start had come `value` late
    hostSilent,     ///< this system's host has not told whether it began
    superseded,     ///< by a stop, or by another prime or start
    noAddress,      ///< this system has none any more: its adaptor is down, or has another one
  };

  struct System {
    std::uint32_t address = 0;
    std::int32_t uniqueID = 0; ///< as far as known
    std::string name{};        ///< as the system says; may hold anything
    bool isAvailable = false;  ///< of a master that has answered: satellites can connect
  };

  Kind kind = Kind::searching;
  Reason reason = Reason::none;
  ETCPE_NetworkError error = eNetworkError_None;
  bool isHere = false; ///< `system` is this one
  std::int64_t value = 0;
  System system{}; ///< that it is about
  System other{};
  std::vector<System> others{};
  bool isOn = false;
  Wish wish = Wish::prime;
  Trel_PlayRange range{};
  Trel_AgreedStart start{};
  Trel_StartOutcome outcome{};
  Trel_SystemState state{};
  std::array<bool, Trel_SharedSettings::kGroups> groups{};
  std::string words{}; ///< of a host, as it says; may hold anything
  /// A line for the user, free of control characters; for a failure it says what to do.
  std::string text{};
};
