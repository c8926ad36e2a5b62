#include "tools/trel/host/Host_Status.h"

#include "tools/trel/common/Status_Judge.h"
#include "tools/trel/common/Status_OfEngine.h"
#include "tools/trel/common/Texts.h"
#include "tools/trel/host/Host_Session.h"

#include <trel/Sys_Socket.h>
#include <trel/Trel_CorrelatedClockMgr.h>

#include <algorithm>

namespace {

using System = Status_Snapshot::System;

/// Adds what a system has told the host, or the host knows of itself.
void AddState(System& system, const Trel_SystemState& state) {
  system.transport = TransportText(state.transport);
  system.isLocked = state.isClockLocked;
  system.isTakingPart = state.IsTakingPart();
  system.isOnline = state.isOnline;
  system.isRecording = state.isRecording;
  system.isSoloed = state.isSoloed;
}

/// The entry of a system of the link, made when the engine does not know it.
System& EntryOf(Status_Snapshot& snapshot, const std::string& address) {
  const auto found = std::find_if(snapshot.systems.begin(), snapshot.systems.end(),
                                  [&address](const System& system) { return system.address == address; });
  if (found != snapshot.systems.end()) {
    return *found;
  }
  System& added = snapshot.systems.emplace_back();
  added.address = address;
  return added;
}

} // namespace

Status_Snapshot Host_Status(const Host_Session& session) {
  const Trel_ClockStatus clockStatus = Trel_CorrelatedClockMgr::GetStatus();
  Status_Snapshot snapshot = Status_OfEngine("host", session.IsMaster(), clockStatus);
  snapshot.isLinked = session->IsLinked();
  snapshot.whyNotLinked = snapshot.isLinked ? "" : session.WhyNotLinked();
  snapshot.runningTime = session->GetRunningTime();
  const std::uint32_t inControl = session->GetSystemInControl();
  if (inControl != 0) {
    snapshot.inControl = Sys_Socket::DecodeIPAddress(inControl);
  }
  const auto others = session->GetStates();
  const auto lastStart = session->GetLastStart();
  for (const Trel_System& member : session->GetSystems()) {
    const std::uint32_t address = member.GetIPAddress();
    System& system = EntryOf(snapshot, Sys_Socket::DecodeIPAddress(address));
    system.order = member.GetOrderNumber();
    system.name = member.GetSystemName();
    system.role = RoleText(member.GetSystemType());
    system.isInControl = address == inControl;
    if (system.isThis) {
      AddState(system, session->GetState());
    } else if (const auto other = others.find(address); other != others.end() && system.isConnected) {
      AddState(system, other->second);
    }
    if (member.GetSystemType() == eTCPE_SystemType_Master && system.isLocked) {
      system.isLocked = true; // it has the clock
    }
    if (const auto late = lastStart.find(address); late != lastStart.end()) {
      system.late = late->second;
    }
  }
  // By place; those without one, which are no members (any more), behind.
  std::stable_sort(snapshot.systems.begin(), snapshot.systems.end(), [](const System& one, const System& other) {
    return one.order != 0 && (other.order == 0 || one.order < other.order);
  });
  Status_Judge(snapshot);
  return snapshot;
}
