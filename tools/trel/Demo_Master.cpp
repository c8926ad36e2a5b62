#include "Demo_Master.h"

#include "ExitStatus.h"
#include "HandleCommand.h"
#include "Player.h"
#include "Status_Judge.h"
#include "Status_OfEngine.h"
#include "Status_Server.h"
#include "Texts.h"

#include <trel/Sys_Clock.h>
#include <trel/Sys_Socket.h>
#include <trel/Trel_Cmd_Clock.h>
#include <trel/Trel_Cmd_Connection.h>
#include <trel/Trel_Cmd_State.h>
#include <trel/Trel_Cmd_Transport.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_Messenger.h>
#include <trel/host/Trel_RunningTimeExchange.h>
#include <trel/host/Trel_StartHelper.h>

#include <algorithm>
#include <thread>

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

constexpr milliseconds kLinkTimeOut{15'000};
constexpr milliseconds kLockTimeOut{20'000};
constexpr milliseconds kSettlingTime{2500}; // the window of measurements is full by then
constexpr milliseconds kExchangePeriod{10};
constexpr milliseconds kReadyTimeOut{5000};
constexpr microseconds kStartLead{500'000};
constexpr milliseconds kReportTimeOut{2000}; // after the start
constexpr milliseconds kStopTimeOut{2000};

constexpr std::int64_t kPlayLength = 10'000'000; // microseconds; the range that is primed
constexpr std::int32_t kPlaySpeed = 1;

} // namespace

Demo_Master::Demo_Master(const Demo_NodeOptions& options) : Demo_Node(options) {}

Demo_Master::~Demo_Master() = default;

milliseconds Demo_Master::LongestRun(std::int32_t rounds) {
  const auto start = std::chrono::ceil<milliseconds>(kStartLead);
  return kLinkTimeOut + kLockTimeOut + kSettlingTime +
         rounds * (2 * kReadyTimeOut + start + kReportTimeOut + kStopTimeOut);
}

int Demo_Master::Run() {
  Prepare();
  mEpoch = Sys_Clock::Microseconds();
  HandleCommand<Trel_Cmd_Connect, &Demo_Master::OnConnect>(this);
  HandleCommand<Trel_Cmd_ClockLockState, &Demo_Master::OnClockLockState>(this);
  HandleCommand<Trel_Cmd_SendState, &Demo_Master::OnSendState>(this);
  HandleCommand<Trel_Cmd_ReportPlayStartData, &Demo_Master::OnReportPlayStartData>(this);
  mPlayer =
      std::make_unique<Player>([this](std::int64_t runningTime) { return mEpoch + runningTime; },
                               [this](std::int64_t runningTime) {
                                 Trel_StartHelper::WaitUntilHostTime(mEpoch + runningTime);
                                 return true;
                               },
                               [this](std::int64_t runningTime, std::int64_t rawTime) {
                                 Emit({.kind = Demo_Event::Kind::started, .rawTime = rawTime, .value = runningTime});
                                 TakeStart(mOptions.address, Sys_Clock::FromRaw(rawTime) - mEpoch);
                               });
  if (!StartEngine()) {
    return kExitFailure;
  }
  Emit({.kind = Demo_Event::Kind::listening, .value = Sys_Clock::ToRaw(mEpoch)});

  {
    const std::jthread exchange([this](const std::stop_token& stop) { Exchange(stop); });
    const Status_Server statusServer([this] { return Status(); });
    Conduct();
    Emit({.kind = Demo_Event::Kind::done});
    IdleUntil(SteadyClock::time_point::max(), [this] { return mFinish.has_value(); });
  }
  StopEngine();
  return kExitSuccess;
}

void Demo_Master::Conduct() {
  Addresses addresses;
  for (std::int32_t index = 1; index <= mOptions.satellites; ++index) {
    addresses.push_back(mOptions.address + static_cast<std::uint32_t>(index));
  }
  addresses = WaitForEach(addresses, kLinkTimeOut, "has not linked", [](const System& s) { return s.isLinked; });
  addresses = WaitForEach(addresses, kLockTimeOut, "has not reported the lock of its clock",
                          [](const System& s) { return s.isLocked; });
  Emit({.kind = Demo_Event::Kind::settling, .value = microseconds(kSettlingTime).count()});
  IdleUntil(SteadyClock::now() + kSettlingTime, [] { return false; });
  for (std::int32_t round = 1; round <= mOptions.rounds; ++round) {
    addresses =
        WaitForEach(addresses, kReadyTimeOut, "is not locked any more", [](const System& s) { return s.isLocked; });
    if (addresses.empty()) {
      EmitFailure("no satellite is left for round " + std::to_string(round));
      return;
    }
    PlayRound(round, addresses);
  }
}

void Demo_Master::PlayRound(std::int32_t round, const Addresses& addresses) {
  Update(mOptions.address, [](System& self) { self.hasReported = false; });
  for (const std::uint32_t address : addresses) {
    Update(address, [](System& satellite) {
      satellite.state = eTrel_State_Stop;
      satellite.hasReported = false;
    });
    Trel_Messenger::Prime(0, 0, kPlayLength, kPlayLength, kPlaySpeed, address);
  }
  Emit({.kind = Demo_Event::Kind::primed, .value = round});
  const Addresses ready = WaitForEach(addresses, kReadyTimeOut, "is not ready to play",
                                      [](const System& s) { return s.state == eTrel_State_PrimeCompleted; });

  const std::int64_t start = RunningTime() + kStartLead.count();
  {
    const std::lock_guard lock(mMutex);
    mStart = start;
  }
  for (const std::uint32_t address : ready) {
    Trel_Messenger::StartPlayback(start, address);
  }
  mPlayer->Start(start);
  Emit({.kind = Demo_Event::Kind::start, .value = start});
  Addresses players = ready;
  players.push_back(mOptions.address);
  WaitForEach(players, std::chrono::ceil<milliseconds>(kStartLead) + kReportTimeOut, "has not reported its start",
              [](const System& s) { return s.hasReported; });
  for (const std::uint32_t address : ready) {
    Trel_Messenger::StopPlayback(address);
  }
  WaitForEach(ready, kStopTimeOut, "has not stopped", [](const System& s) { return s.state == eTrel_State_Stop; });
  Emit({.kind = Demo_Event::Kind::roundOver, .value = round});
}

template <class Condition>
Demo_Master::Addresses Demo_Master::WaitForEach(const Addresses& addresses, milliseconds timeOut, const char* whatFails,
                                                Condition condition) {
  IdleUntil(SteadyClock::now() + timeOut, [&] {
    return std::all_of(addresses.begin(), addresses.end(), [&](std::uint32_t address) {
      const System& satellite = mSystems[address];
      return satellite.isLost || condition(satellite);
    });
  });
  Addresses fulfilled;
  const std::lock_guard lock(mMutex);
  for (const std::uint32_t address : addresses) {
    const System& satellite = mSystems[address];
    if (satellite.isLost) {
      continue;
    }
    if (condition(satellite)) {
      fulfilled.push_back(address);
    } else {
      EmitFailure(Sys_Socket::DecodeIPAddress(address) + ' ' + whatFails);
    }
  }
  return fulfilled;
}

void Demo_Master::Exchange(const std::stop_token& stop) const {
  Trel_RunningTimeExchange exchange;
  while (!stop.stop_requested()) {
    // Running time 0 is at the epoch: given as a pair, the two need not be read at one instant.
    exchange.Tick(Trel_CommManager::GetConnectedAddresses(), 0, mEpoch);
    std::this_thread::sleep_for(kExchangePeriod);
  }
}

std::int64_t Demo_Master::RunningTime() const { return Sys_Clock::Microseconds() - mEpoch; }

void Demo_Master::OnNetworkError(TCPE_CommManager::ENetworkError error, std::uint32_t address) {
  Emit({.kind = Demo_Event::Kind::lost, .address = address, .text = NetworkErrorText(error)});
  Update(address, [](System& satellite) { satellite.isLost = true; });
}

void Demo_Master::OnConnect(Trel_Cmd_Connect& command) {
  Update(command.GetIPAddressFrom(), [](System& satellite) { satellite.isLinked = true; });
}

void Demo_Master::OnClockLockState(Trel_Cmd_ClockLockState& command) {
  const bool isLocked = command.GetClockLocked();
  Update(command.GetIPAddressFrom(), [&](System& satellite) {
    if (satellite.isLocked && !isLocked) {
      Emit({.kind = Demo_Event::Kind::unlocked, .address = command.GetIPAddressFrom()});
    }
    satellite.isLocked = isLocked;
  });
}

void Demo_Master::OnSendState(Trel_Cmd_SendState& command) {
  if (command.GetState() == eTrel_State_PrimeCompleted) {
    Emit({.kind = Demo_Event::Kind::ready, .address = command.GetIPAddressFrom()});
  }
  Update(command.GetIPAddressFrom(), [&](System& satellite) { satellite.state = command.GetState(); });
}

void Demo_Master::OnReportPlayStartData(Trel_Cmd_ReportPlayStartData& command) {
  TakeStart(command.GetIPAddressFrom(), command.GetAudioPlayStartTimestamp());
}

void Demo_Master::TakeStart(std::uint32_t address, std::int64_t actualStart) {
  Update(address, [&](System& system) {
    system.hasReported = true;
    system.late = actualStart - mStart;
    system.lateAt = mStart;
    mReportedStart = mStart;
  });
}

Status_Snapshot Demo_Master::Status() {
  Status_Snapshot status = Status_OfEngine("demo", true, {});
  status.runningTime = RunningTime();
  status.inControl = status.address;
  status.systems.front().isInControl = true;
  const std::lock_guard lock(mMutex);
  std::int64_t place = 0; // they have none, so by address
  for (Status_Snapshot::System& entry : status.systems) {
    entry.order = entry.isThis || entry.isConnected ? ++place : 0;
    std::uint32_t address = 0;
    Sys_Socket::EncodeIPAddress(entry.address.c_str(), &address);
    const auto known = mSystems.find(address);
    if (known == mSystems.end()) {
      continue;
    }
    if (known->second.lateAt == mReportedStart) {
      entry.late = known->second.late;
    }
    if (!entry.isThis) {
      entry.isLocked = known->second.isLocked;
      entry.transport = TransportText(known->second.state);
      status.isLinked = status.isLinked || entry.isConnected;
    }
  }
  Status_Judge(status, eTrel_ClockState_NoClock);
  return status;
}

template <class Change>
void Demo_Master::Update(std::uint32_t address, Change change) {
  const std::lock_guard lock(mMutex);
  change(mSystems[address]);
  mChanged.notify_all();
}
