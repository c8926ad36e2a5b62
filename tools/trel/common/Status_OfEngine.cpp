#include "tools/trel/common/Status_OfEngine.h"

#include "tools/trel/common/Texts.h"

#include <trel/Sys_Socket.h>
#include <trel/TCPE_EngineSnapshot.h>
#include <trel/TCPE_ErrorText.h>
#include <trel/Trel_CommManager.h>

#include <unistd.h>

namespace {

struct Counter {
  const char* name;
  std::uint64_t TCPE_Counters::*count;
};

constexpr Counter kCounters[] = {{"unknown_commands", &TCPE_Counters::unknownCommands},
                                 {"malformed_payloads", &TCPE_Counters::malformedPayloads},
                                 {"unhandled_commands", &TCPE_Counters::unhandledCommands},
                                 {"queue_overflows", &TCPE_Counters::queueOverflows},
                                 {"late_replies", &TCPE_Counters::lateReplies},
                                 {"refused_connections", &TCPE_Counters::refusedConnections},
                                 {"malformed_frames", &TCPE_Counters::malformedFrames},
                                 {"unfinished_frames", &TCPE_Counters::unfinishedFrames},
                                 {"unproved_secrets", &TCPE_Counters::unprovedSecrets},
                                 {"turned_away", &TCPE_Counters::turnedAway},
                                 {"untold_failures", &TCPE_Counters::untoldFailures},
                                 {"wrong_tags", &TCPE_Counters::wrongTags},
                                 {"malformed_datagrams", &TCPE_Counters::malformedDatagrams},
                                 {"other_numbering_datagrams", &TCPE_Counters::otherNumberingDatagrams},
                                 {"unauthentic_datagrams", &TCPE_Counters::unauthenticDatagrams},
                                 {"datagrams_beyond_rate", &TCPE_Counters::datagramsBeyondRate}};

Status_Snapshot::System SystemOf(const TCPE_PeerSnapshot& peer) {
  Status_Snapshot::System system;
  system.name = peer.name;
  system.address = Sys_Socket::DecodeIPAddress(peer.address);
  system.role = RoleText(peer.systemType);
  system.isConnected = peer.isConnected;
  if (peer.isConnected) {
    system.silence = peer.silentFor;
  } else {
    system.gone = peer.goneFor;
    system.isLost = peer.isLost;
  }
  system.roundTrips = static_cast<std::int64_t>(peer.roundTrips.count);
  if (peer.roundTrips.count != 0) {
    system.roundTripMedian = peer.roundTrips.median;
    system.roundTrip99 = peer.roundTrips.percentile99;
  }
  const auto number = [](auto count) { return static_cast<std::int64_t>(count); };
  system.losses = number(peer.losses);
  system.sent = number(peer.sentCommands.commands);
  system.sentFinished = number(peer.sentCommands.finished);
  system.sentRefused = number(peer.sentCommands.refused);
  system.sentInFlight = number(peer.sentCommands.inFlight);
  system.sentAbandoned = number(peer.sentCommands.abandoned);
  system.received = number(peer.receivedCommands.commands);
  system.receivedFinished = number(peer.receivedCommands.finished);
  system.receivedRefused = number(peer.receivedCommands.refused);
  system.receivedInFlight = number(peer.receivedCommands.inFlight);
  system.waitingSenders = number(peer.waitingSenders);
  if (peer.lastLoss != eNetworkError_None) {
    system.lastLoss = TCPE_ErrorText(peer.lastLoss);
  }
  return system;
}

} // namespace

Status_Snapshot Status_OfEngine(const std::string& program, bool isMaster, const Trel_ClockStatus& clock) {
  const TCPE_EngineSnapshot engine = Trel_CommManager::GetSnapshot();
  Status_Snapshot snapshot;
  snapshot.program = program;
  snapshot.process = getpid();
  snapshot.name = Trel_CommManager::GetSystemName();
  snapshot.address = Sys_Socket::DecodeIPAddress(engine.address);
  snapshot.role = RoleText(isMaster ? eTCPE_SystemType_Master : eTCPE_SystemType_Satellite);
  snapshot.isMaster = isMaster;
  if (!isMaster) {
    snapshot.clock = clock;
  }
  Status_Snapshot::System own;
  own.name = snapshot.name;
  own.address = snapshot.address;
  own.role = snapshot.role;
  own.isThis = true;
  snapshot.systems.push_back(own);
  for (const TCPE_PeerSnapshot& peer : engine.peers) {
    snapshot.systems.push_back(SystemOf(peer));
  }
  for (const Counter& counter : kCounters) {
    if (const std::uint64_t count = engine.counters.*counter.count; count != 0) {
      snapshot.dropped[counter.name] = count;
    }
  }
  return snapshot;
}
