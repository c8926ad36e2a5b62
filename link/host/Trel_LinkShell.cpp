#include "link/host/Trel_LinkShell.h"

#include "foundation/Cmn_HostCall.h"
#include "link/host/Trel_LinkTexts.h"
#include "link/host/Trel_SessionCommands.h"

#include <trel/Cmn_Assert.h>
#include <trel/Sys_Clock.h>
#include <trel/Sys_Umid.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_CorrelatedClockMgr.h>

#include <algorithm>
#include <chrono>
#include <system_error>
#include <utility>
#include <variant>

namespace {

using Commands = Trel_SessionCommands;
using CallKind = Cmn_HostCall::Kind;

constexpr std::uint32_t kSearchLane = 0; // an address that nobody has: one search or attempt to connect at a time
constexpr std::int64_t kLongestAttempt = 17'000'000;   // microseconds, to connect
constexpr std::int64_t kSurroundingsCheck = 1'000'000; // microseconds
constexpr std::int64_t kLeastSleep = 50;               // microseconds, of the thread that keeps the time
constexpr std::chrono::seconds kLongestAnswer{12};     // beyond what any transition takes

TCPE_Limits LimitsOfLanes() {
  TCPE_Limits limits;
  limits.maxHandlerThreads = 24;
  limits.maxQueuedQueries = 512;
  limits.maxWaitingHandlers = 4;
  limits.maxQueues = 256;
  return limits;
}

Trel_SessionCore::Config ConfigFor(const Trel_LinkSession::Settings& settings) {
  return {.isMaster = settings.isMaster,
          .isCurrentNumbering = Trel_CommManager::GetSupportsMarlo11(),
          .masterAddress = settings.masterAddress,
          .wantsMesh = settings.wantsMesh,
          .reconnects = settings.reconnects,
          .firstPause = settings.firstPause,
          .longestPause = settings.longestPause,
          .seed = Sys_Umid::Random64()};
}

/// Of a peer's engine; 0 when it is not connected.
std::uint64_t InstanceOf(std::uint32_t address) { return Trel_CommManager::GetPeerInstance(address); }

} // namespace

Trel_LinkShell::Trel_LinkShell(Trel_LinkSession::Settings settings)
    : mSettings(std::move(settings)), mEvents([this](const Trel_LinkEvent& event) {
        if (mSettings.onEvent) {
          Cmn_HostCall::Run(CallKind::session, [&] { mSettings.onEvent(event); });
        }
      }),
      mClock(mSettings.isMaster, mSettings.zeroTime.value_or(Sys_Clock::Microseconds()), mSettings.exchange),
      mCore(Core::Make(ConfigFor(mSettings))) {}

// --- from beginning to end ------------------------------------------------------------------------------------------

bool Trel_LinkShell::Start() {
  if (!Trel_CommManager::IsInitialized()) {
    return false;
  }
  std::unique_lock lifecycle(mLifecycle, std::defer_lock);
  if (!IsOnOwnThread()) { // for which Stop waits
    lifecycle.lock();
  }
  {
    std::unique_lock lock(mMutex);
    if (mState != State::stopped) {
      const bool isRunning = mState == State::running;
      lock.unlock();
      Feed([](Core& core, Core::Time now) { core.Resume(now); });
      return isRunning;
    }
    mState = State::running;
    mPool = std::make_shared<Pool>(LimitsOfLanes());
  }
  if (!StartThreads()) {
    StopThreads(0);
    return false;
  }
  TakeRole();
  Trel_CommManager::SetAllowSatellitesToConnectToMasterSystem(mSettings.isMaster);
  Feed([this](Core& core, Core::Time now) {
    if (!mSettings.onStart) {
      core.State().SetTakingPart(false);
    }
    core.Begin(now);
  });
  return true;
}

void Trel_LinkShell::TakeRole() const {
  const bool isMaster = mSettings.isMaster;
  Trel_CommManager::SetIsSatellite(!isMaster);
  Trel_CommManager::SetIsMasterClock(isMaster);
  Trel_CommManager::SetSystemType(isMaster ? eTCPE_SystemType_Master : eTCPE_SystemType_Satellite);
}

bool Trel_LinkShell::StartThreads() {
  try {
    mPool->Start();
    mEvents.Start();
    mTimeKeeper = std::thread([this] { KeepTime(); });
    mClock.Start([this] { return Ask([](const Core& core) { return core.GetLinkedAddresses(); }); },
                 [this] { Feed([](Core& core, Core::Time now) { core.Tick(now); }); });
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}

void Trel_LinkShell::StopThreads(std::int64_t longestJob) {
  {
    const std::lock_guard lock(mMutex);
    mState = State::stopping;
    mChanged.notify_all();
  }
  mPool->Stop(longestJob);
  std::set<std::uint32_t> parting; // who would stay connected, with a session that knows nothing of it
  {
    const std::lock_guard lock(mMutex);
    parting.swap(mParting);
  }
  for (const std::uint32_t address : parting) {
    Trel_CommManager::Disconnect(address);
  }
  if (mTimeKeeper.joinable()) {
    mTimeKeeper.join();
  }
  mClock.Stop();
  mEvents.Stop();
  const std::lock_guard lock(mMutex);
  mState = State::stopped;
  mChanged.notify_all();
}

void Trel_LinkShell::Stop() {
  const bool isOutside = !IsOnOwnThread();
  Cmn_Assert::HandleMagicAssert(isOutside, R"(! IsOnOwnThread()@$^$@..\Trel_LinkSession)", __LINE__);
  if (!isOutside) {
    return;
  }
  const std::lock_guard lifecycle(mLifecycle);
  {
    const std::lock_guard lock(mMutex);
    if (mState != State::running) {
      return;
    }
    mState = State::stopping;
  }
  Feed([](Core& core, Core::Time now) { core.End(now); });
  if (mSettings.isMaster) {
    Trel_CommManager::SetAllowSatellitesToConnectToMasterSystem(false);
  }
  StopThreads(kLongestAttempt);
}

bool Trel_LinkShell::IsOnOwnThread() {
  const std::lock_guard lock(mMutex);
  return mState != State::stopped && (mEvents.IsOnOwnThread() || mPool->IsOnHandlerThread());
}

void Trel_LinkShell::KeepTime() {
  std::unique_lock lock(mMutex);
  while (mState == State::running) {
    const Core::Time now = Sys_Clock::RawMicroseconds();
    mWakesUp = std::clamp(mCore->NextDeadline(), now + kLeastSleep, now + kSurroundingsCheck);
    mChanged.wait_for(lock, std::chrono::microseconds(mWakesUp - now),
                      [this] { return mState != State::running || mCore->NextDeadline() < mWakesUp - kLeastSleep; });
    if (mState == State::running && Sys_Clock::RawMicroseconds() >= std::min(mCore->NextDeadline(), mWakesUp)) {
      lock.unlock();
      Feed([](Core& core, Core::Time time) { core.Tick(time); });
      lock.lock();
    }
  }
}

// --- what happens ---------------------------------------------------------------------------------------------------

Trel_SessionTime Trel_LinkShell::Notice() {
  const Core::Time now = Sys_Clock::RawMicroseconds();
  mCore->Notice({.self = Commands::LocalSystem(),
                 .allowsSatellites = Trel_CommManager::AllowSatellitesToConnectToMasterSystem(),
                 .maxSatellites = Trel_CommManager::GetMaxNumberSatellites(),
                 .runningTime = mClock.RunningTime(Sys_Clock::Microseconds()),
                 .startDelay = mStartDelay},
                now);
  return now;
}

bool Trel_LinkShell::IsOutdated(const TCPE_Command& command) {
  const std::uint64_t present = Trel_CommManager::GetConnection(command.GetIPAddressFrom());
  return present != 0 && present != command.GetConnection();
}

/// With the lock held.
void Trel_LinkShell::TakeActions() {
  bool wakes = mCore->NextDeadline() < mWakesUp;
  const auto waiterOf = [this](Token token) {
    const auto waiter = mWaiters.find(token);
    return waiter != mWaiters.end() ? &waiter->second : nullptr;
  };
  for (Action::Any& action : mCore->TakeActions()) {
    if (std::holds_alternative<Action::ResetClock>(action)) {
      Trel_CorrelatedClockMgr::ResetClock(); // before the core is asked anything more
      continue;
    }
    if (auto* const start = std::get_if<Action::AnswerStart>(&action)) {
      if (const auto waiter = mStartWaiters.find(start->token); waiter != mStartWaiters.end()) {
        waiter->second = std::move(start->answer);
        wakes = true;
      }
      continue;
    }
    const auto* const answer = std::get_if<Action::Answer>(&action);
    const auto* const question = std::get_if<Action::AskHost>(&action);
    const auto* const send = std::get_if<Action::Send>(&action);
    const Token token = answer != nullptr     ? answer->token
                        : question != nullptr ? question->token
                        : send != nullptr     ? send->waiting
                                              : 0;
    Waiter* const waiter = waiterOf(token);
    if (waiter == nullptr) {
      mActions.push_back(std::move(action));
      continue;
    }
    wakes = true;
    if (answer != nullptr) {
      waiter->answer = answer->value;
    } else {
      waiter->work.push_back(std::move(action));
    }
  }
  if (wakes) {
    mChanged.notify_all();
  }
}

void Trel_LinkShell::OnConnect(const Trel_Cmd_Connect& command) {
  const std::uint32_t from = command.GetIPAddressFrom();
  if (mEvents.IsFull()) {
    Trel_CommManager::Disconnect(from);
    return;
  }
  if (mSettings.onConnect) {
    Cmn_HostCall::Run(CallKind::session, [&] { mSettings.onConnect(from); });
  }
  FeedWith(command, [peer = Commands::ReadPeer(command)](Core& core, Core::Time now) {
    core.Connected(peer, InstanceOf(peer.address), now);
  });
}

void Trel_LinkShell::OnDisconnect(const TCPE_Command& command) {
  mClock.Forget(command.GetIPAddressFrom());
  FeedWith(command, [&](Core& core, Core::Time now) { core.Disconnected(command.GetIPAddressFrom(), now); });
}

bool Trel_LinkShell::OnRequestControl(const TCPE_Command& command) {
  const std::uint32_t from = command.GetIPAddressFrom();
  if (IsOutdated(command)) {
    return false;
  }
  return AwaitAnswer([from](Core& core, Token token, Core::Time now) { core.ControlAsked(from, token, now); }) ==
         ControlAnswer::granted;
}

template <class Begin>
Trel_LinkSession::ControlAnswer Trel_LinkShell::AwaitAnswer(Begin begin) {
  std::unique_lock lock(mMutex);
  const Token token = ++mLastToken;
  Waiter& waiter = mWaiters[token];
  lock.unlock();
  Feed([&](Core& core, Core::Time now) { begin(core, token, now); });
  lock.lock();
  const auto end = std::chrono::steady_clock::now() + kLongestAnswer;
  while (mChanged.wait_until(lock, end, [&] { return waiter.answer || !waiter.work.empty(); })) {
    if (waiter.work.empty()) {
      break;
    }
    const Action::Any work = std::move(waiter.work.front());
    waiter.work.pop_front();
    lock.unlock();
    DoForAnswer(work);
    lock.lock();
  }
  const auto answer = waiter.answer.value_or(Action::Answer::Value::busy);
  mWaiters.erase(token);
  return answer == Action::Answer::Value::granted ? ControlAnswer::granted
         : answer == Action::Answer::Value::busy  ? ControlAnswer::busy
                                                  : ControlAnswer::noLink;
}

void Trel_LinkShell::DoForAnswer(const Action::Any& work) {
  if (const auto* const ask = std::get_if<Action::AskHost>(&work)) {
    const bool agrees = Cmn_HostCall::Ask(
        CallKind::session, false, [&] { return !mSettings.mayGiveControl || mSettings.mayGiveControl(ask->asker); });
    Feed([&](Core& core, Core::Time now) { core.HostAnswered(ask->token, agrees, now); });
  } else if (const auto* const send = std::get_if<Action::Send>(&work)) {
    for (const std::uint32_t address : send->to) {
      const auto sent = Commands::Send(send->message, address);
      Feed([&](Core& core, Core::Time now) { core.SendEnded(send->request, address, sent.outcome, now, sent.value); });
    }
  }
}

// --- what the host wants --------------------------------------------------------------------------------------------

Trel_LinkSession::ControlAnswer Trel_LinkShell::RequestControl() {
  return AwaitAnswer([](Core& core, Token token, Core::Time now) { core.RequestControl(token, now); });
}

void Trel_LinkShell::AskStartDelay() {
  if (mSettings.getStartDelay) {
    mStartDelay =
        std::max<std::int64_t>(0, Cmn_HostCall::Ask(CallKind::session, std::int64_t{0}, mSettings.getStartDelay));
  }
}

Trel_StartAnswer Trel_LinkShell::StartPlayback(const Trel_StartRequest& request) {
  AskStartDelay();
  std::unique_lock lock(mMutex);
  const Token token = ++mLastToken;
  std::optional<Trel_StartAnswer>& answer = mStartWaiters[token];
  lock.unlock();
  Feed([&](Core& core, Core::Time now) { core.Start(request, token, now); });
  lock.lock();
  mChanged.wait_for(lock, kLongestAnswer, [&] { return answer.has_value(); });
  Trel_StartAnswer told = answer.value_or(Trel_StartAnswer{.refusal = Trel_LinkRefusal::notLinked});
  mStartWaiters.erase(token);
  return told;
}

void Trel_LinkShell::Rename(const char* name) {
  Trel_CommManager::SetSystemName(name);
  Feed([](Core& core, Core::Time now) { core.Renamed(now); });
}

// --- what is to be done ---------------------------------------------------------------------------------------------

void Trel_LinkShell::CarryOutAll() {
  std::unique_lock lock(mMutex);
  if (mIsCarryingOut) {
    return; // whoever does so goes on with what has been added
  }
  mIsCarryingOut = true;
  while (!mActions.empty()) {
    Action::Any action = std::move(mActions.front());
    mActions.pop_front();
    lock.unlock();
    try {
      std::visit([this](auto& wanted) { CarryOut(std::move(wanted)); }, action);
    } catch (...) { // NOLINT(bugprone-empty-catch): without memory one thing is left out, and the others are not
    }
    lock.lock();
  }
  mIsCarryingOut = false;
}

std::shared_ptr<TCPE_HandlerPool> Trel_LinkShell::Lanes() const {
  const std::lock_guard lock(mMutex);
  return mState == State::running ? mPool : nullptr;
}

bool Trel_LinkShell::Later(std::uint32_t lane, Pool::Job job) {
  const std::shared_ptr<Pool> lanes = Lanes();
  return lanes && lanes->Submit(lane, std::move(job), Pool::Kind::query);
}

bool Trel_LinkShell::IsIdle(std::uint32_t address) const {
  const std::shared_ptr<Pool> lanes = Lanes();
  if (!lanes) {
    return true;
  }
  const TCPE_HandlerLoad load = lanes->GetLoad(address);
  return load.waiting == 0 && load.running == 0;
}

void Trel_LinkShell::InOrder(std::uint32_t address, const Pool::Job& job) {
  if (IsIdle(address) || !Later(address, job)) {
    job();
  }
}

void Trel_LinkShell::CarryOut(const Action::Send& send) {
  const auto message = std::make_shared<const Trel_SessionMessage::Any>(send.message);
  const bool isConfirmed = Commands::IsConfirmed(*message);
  std::vector<std::uint32_t> atOnce;
  for (const std::uint32_t address : send.to) {
    if (!isConfirmed && IsIdle(address)) {
      atOnce.push_back(address);
      continue;
    }
    const bool isTaken = Later(address, [self = shared_from_this(), message, address, request = send.request] {
      const auto sent = Commands::Send(*message, address);
      if (request != 0) {
        self->Feed(
            [&](Core& core, Core::Time now) { core.SendEnded(request, address, sent.outcome, now, sent.value); });
      }
    });
    if (!isTaken && send.request != 0) {
      Feed([&](Core& core, Core::Time now) {
        core.SendEnded(send.request, address, Trel_SessionMessage::Outcome::none, now);
      });
    }
  }
  if (!atOnce.empty()) {
    Commands::SendToAll(*message, atOnce);
  }
}

void Trel_LinkShell::CarryOut(const Action::Search& /*search*/) {
  Later(kSearchLane, [self = shared_from_this()] {
    std::map<Trel_System, bool> found;
    if (self->mSettings.findMasters) {
      Cmn_HostCall::Run(CallKind::session, [&] { self->mSettings.findMasters(&found); });
    } else if (self->mSettings.isMaster) {
      Trel_CommManager::GetOtherMastersList(&found);
    } else {
      Trel_CommManager::GetMasterSystemsList(&found);
    }
    std::vector<Trel_LinkEvent::System> masters;
    masters.reserve(found.size());
    for (const auto& [master, isAvailable] : found) {
      masters.push_back({.address = master.GetIPAddress(),
                         .uniqueID = master.GetUniqueID(),
                         .name = master.GetSystemName(),
                         .isAvailable = isAvailable});
    }
    self->Feed([&](Core& core, Core::Time now) { core.SearchEnded(masters, now); });
  });
}

void Trel_LinkShell::CarryOut(const Action::Connect& connect) {
  const std::uint32_t address = connect.address;
  const auto attempt = [self = shared_from_this(), address] {
    const bool isConnected = Trel_CommManager::Connect(address);
    self->Feed(
        [&](Core& core, Core::Time now) { core.ConnectEnded(address, isConnected ? InstanceOf(address) : 0, now); });
  };
  InOrder(address, [self = shared_from_this(), address, attempt] {
    if (!self->Later(kSearchLane, attempt)) {
      self->Feed([&](Core& core, Core::Time now) { core.ConnectEnded(address, 0, now); });
    }
  });
}

void Trel_LinkShell::CarryOut(const Action::Disconnect& disconnect) {
  {
    const std::lock_guard lock(mMutex);
    mParting.insert(disconnect.address);
  }
  InOrder(disconnect.address, [self = shared_from_this(), address = disconnect.address] {
    {
      const std::lock_guard lock(self->mMutex);
      self->mParting.erase(address);
    }
    Trel_CommManager::Disconnect(address);
  });
}

void Trel_LinkShell::CarryOut(const Action::Listen& listen) {
  InOrder(listen.address, [self = shared_from_this(), address = listen.address] {
    std::optional<Core::Time> silence;
    for (const TCPE_PeerSnapshot& peer : Trel_CommManager::GetSnapshot().peers) {
      if (peer.address == address && peer.isConnected) {
        silence = peer.silentFor;
      }
    }
    self->Feed([&](Core& core, Core::Time now) { core.Heard(address, silence, now); });
  });
}

void Trel_LinkShell::CarryOut(const Action::SetMaster& master) {
  Trel_CommManager::SetMasterSystemIPAddress(master.address);
}

template <class Call>
void Trel_LinkShell::CallHost(Call call) {
  mEvents.Call([self = shared_from_this(), call]() mutable {
    const bool isDone = Cmn_HostCall::Ask(CallKind::session, false, [&] { return call(*self); });
    self->Feed([&](Core& core, Core::Time now) { core.HostDone(isDone, now); });
  });
}

void Trel_LinkShell::CarryOut(const Action::HostPrime& prime) {
  CallHost([range = prime.range](Trel_LinkShell& shell) {
    const bool isReady = !shell.mSettings.onPrime || shell.mSettings.onPrime(range);
    shell.AskStartDelay();
    return isReady;
  });
}

void Trel_LinkShell::CarryOut(const Action::HostStart& start) {
  CallHost([agreed = start.start](Trel_LinkShell& shell) mutable {
    const auto hostTime = shell.mClock.HostTime(agreed.runningTime);
    agreed.hostTime = hostTime.value_or(0);
    return hostTime && shell.mSettings.onStart && shell.mSettings.onStart(agreed);
  });
}

void Trel_LinkShell::CarryOut(const Action::HostStop& /*stop*/) {
  CallHost([](Trel_LinkShell& shell) {
    if (shell.mSettings.onStop) {
      shell.mSettings.onStop();
    }
    return true;
  });
}

void Trel_LinkShell::CarryOut(Action::Tell tell) {
  using EventKind = Trel_LinkEvent::Kind;
  Trel_LinkEvent& event = tell.event;
  if (event.kind == EventKind::linked) {
    mClock.Wake();
  }
  if (event.kind == EventKind::systems) {
    for (const Trel_SessionSystem& system : Ask([](const Core& core) { return core.GetSystems(); })) {
      Trel_CommManager::SetPeerName(system.address, system.name.c_str());
    }
  } else if (event.kind == EventKind::connected || event.kind == EventKind::named) {
    Trel_CommManager::SetPeerName(event.system.address, event.system.name.c_str());
  }
  event.text = Trel_LinkTexts::Describe(event, mSettings.isMaster);
  mEvents.Tell(std::move(event));
}
