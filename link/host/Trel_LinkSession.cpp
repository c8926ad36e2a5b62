#include <trel/host/Trel_LinkSession.h>

#include "foundation/Sys_Process.h"
#include "link/host/Trel_LinkHandlers.h"
#include "link/host/Trel_LinkShell.h"
#include "link/host/Trel_LinkTexts.h"
#include "link/host/Trel_SessionCommands.h"

#include <algorithm>
#include <iterator>
#include <type_traits>
#include <utility>

namespace {

using Core = Trel_SessionCore;
using Shell = std::shared_ptr<Trel_LinkShell>;

/// What the core says; as fresh for a session that is none, because there is another one.
template <class Function>
auto Ask(const Shell& shell, Function function) {
  using Answer = std::decay_t<decltype(function(std::declval<const Core&>()))>;
  return shell ? shell->Ask([&](const Core& core) -> Answer { return function(core); }) : Answer();
}

template <class Function>
void Feed(const Shell& shell, Function function) {
  if (shell) {
    shell->Feed(function);
  }
}

template <class Function>
Trel_LinkRefusal Wish(const Shell& shell, Function function) {
  return shell ? shell->Feed(function) : Trel_LinkRefusal::notLinked;
}

} // namespace

Trel_LinkSession::Trel_LinkSession(Settings settings)
    : mProcess(Sys_Process::Identifier()), mShell(std::make_shared<Trel_LinkShell>(std::move(settings))) {
  if (Trel_LinkHandlers::Attach(*mShell)) {
    mShell->TakeRole();
  } else {
    mShell.reset();
  }
}

Trel_LinkSession::~Trel_LinkSession() {
  if (mProcess != Sys_Process::Identifier()) { // forked: the threads are those of another process
    Sys_Process::Abandon(std::move(mShell));
  }
  if (mShell) {
    mShell->Stop();
    Trel_LinkHandlers::Detach();
  }
}

void Trel_LinkSession::OnNetworkError(TCPE_CommManager::ENetworkError error, std::uint32_t address) {
  Trel_LinkHandlers::OnNetworkError(error, address);
}

bool Trel_LinkSession::Start() { return mShell && mShell->Start(); }

void Trel_LinkSession::Stop() {
  if (mShell && mProcess == Sys_Process::Identifier()) {
    mShell->Stop();
  }
}

bool Trel_LinkSession::IsLinked() const {
  return Ask(mShell, [](const Core& core) { return core.IsLinked(); });
}

std::vector<Trel_System> Trel_LinkSession::GetSystems() const {
  std::vector<Trel_SessionSystem> systems = Ask(mShell, [](const Core& core) { return core.GetSystems(); });
  if (systems.empty()) {
    systems.push_back(Trel_SessionCommands::LocalSystem());
  }
  std::vector<Trel_System> records;
  std::transform(systems.begin(), systems.end(), std::back_inserter(records), &Trel_SessionCommands::ToSystem);
  return records;
}

std::set<std::uint32_t> Trel_LinkSession::GetLinkedAddresses() const {
  return Ask(mShell, [](const Core& core) { return core.GetLinkedAddresses(); });
}

// --- time -----------------------------------------------------------------------------------------------------------

std::optional<std::int64_t> Trel_LinkSession::GetRunningTime(std::int64_t hostTime) const noexcept {
  return mShell ? mShell->Clock().RunningTime(hostTime) : std::nullopt;
}

std::optional<std::int64_t> Trel_LinkSession::GetHostTime(std::int64_t runningTime) const noexcept {
  return mShell ? mShell->Clock().HostTime(runningTime) : std::nullopt;
}

bool Trel_LinkSession::IsClockLocked() const noexcept { return mShell && mShell->Clock().IsLocked(); }

std::optional<Trel_RunningTimeExchange::Status> Trel_LinkSession::GetExchangeStatus(std::uint32_t address) const {
  return mShell ? mShell->Clock().GetStatus(address) : std::nullopt;
}

// --- control --------------------------------------------------------------------------------------------------------

Trel_LinkSession::ControlAnswer Trel_LinkSession::RequestControl() {
  return mShell ? mShell->RequestControl() : ControlAnswer::noLink;
}

bool Trel_LinkSession::HasControl() const {
  return Ask(mShell, [](const Core& core) { return core.Control().HasControl(); });
}

std::uint32_t Trel_LinkSession::GetSystemInControl() const {
  return Ask(mShell, [](const Core& core) { return core.Control().GetHolder(); });
}

// --- playing together -----------------------------------------------------------------------------------------------

Trel_LinkRefusal Trel_LinkSession::Prime(const Trel_PlayRange& range) {
  return Wish(mShell, [&](Core& core, Core::Time now) { return core.Prime(range, now); });
}

Trel_StartAnswer Trel_LinkSession::StartPlayback(const Trel_StartRequest& request) {
  return mShell ? mShell->StartPlayback(request) : Trel_StartAnswer{.refusal = Trel_LinkRefusal::notLinked};
}

Trel_LinkRefusal Trel_LinkSession::StopPlayback() {
  return Wish(mShell, [&](Core& core, Core::Time now) { return core.Stop(now); });
}

void Trel_LinkSession::ReportStart(std::int64_t runningTime, std::int64_t hostTime) {
  const auto actual = GetRunningTime(hostTime);
  Feed(mShell, [&](Core& core, Core::Time now) {
    if (actual) {
      core.Began(runningTime, *actual, now);
    } else {
      core.ClockLost(runningTime, now);
    }
  });
}

void Trel_LinkSession::ReportNoStart(std::int64_t runningTime, const std::string& why) {
  Feed(mShell, [&](Core& core, Core::Time now) { core.DidNotBegin(runningTime, why, now); });
}

std::map<std::uint32_t, std::int64_t> Trel_LinkSession::GetLastStart() const {
  return Ask(mShell, [](const Core& core) { return core.Conductor().GetLastStart(); });
}

// --- state ----------------------------------------------------------------------------------------------------------

Trel_SystemState Trel_LinkSession::GetState() const {
  return Ask(mShell, [](const Core& core) { return core.State().Own(); });
}

std::map<std::uint32_t, Trel_SystemState> Trel_LinkSession::GetStates() const {
  return Ask(mShell, [](const Core& core) { return core.State().Others(); });
}

Trel_SharedSettings Trel_LinkSession::GetSharedSettings() const {
  return Ask(mShell, [](const Core& core) { return core.State().Shared(); });
}

void Trel_LinkSession::SetSoloed(bool isOn) {
  Feed(mShell, [&](Core& core, Core::Time) { core.State().SetSoloed(isOn); });
}

void Trel_LinkSession::SetRecording(bool isOn) {
  Feed(mShell, [&](Core& core, Core::Time) { core.State().SetRecording(isOn); });
}

void Trel_LinkSession::SetOnline(bool isOn) {
  Feed(mShell, [&](Core& core, Core::Time) { core.State().SetOnline(isOn); });
}

void Trel_LinkSession::SetTakingPart(bool isOn) {
  if (mShell && mShell->GetSettings().onStart) {
    Feed(mShell, [&](Core& core, Core::Time) { core.State().SetTakingPart(isOn); });
  }
}

void Trel_LinkSession::SetVideoReference(ETrel_VideoReferenceFormat format) {
  Feed(mShell, [&](Core& core, Core::Time) { core.State().SetVideoReference(format); });
}

void Trel_LinkSession::SetDialog(const std::string& text) {
  Feed(mShell, [&](Core& core, Core::Time) { core.State().SetDialog(text); });
}

Trel_LinkRefusal Trel_LinkSession::SetLoopPlay(bool isOn) {
  return Wish(mShell, [&](Core& core, Core::Time) { return core.State().SetLoopPlay(isOn); });
}

Trel_LinkRefusal Trel_LinkSession::SetSelection(const Trel_PlayRange& range) {
  return Wish(mShell, [&](Core& core, Core::Time) { return core.State().SetSelection(range); });
}

Trel_LinkRefusal Trel_LinkSession::EnableGroup(ETrel_Group group, bool isOn) {
  return Wish(mShell, [&](Core& core, Core::Time) { return core.State().EnableGroup(group, isOn); });
}

Trel_LinkRefusal Trel_LinkSession::SoloAll(bool isOn) {
  return Wish(mShell, [&](Core& core, Core::Time) { return core.State().SoloAll(isOn); });
}

Trel_LinkRefusal Trel_LinkSession::RequestOnline(bool isOn, std::uint32_t address) {
  return Wish(mShell, [&](Core& core, Core::Time) { return core.State().RequestOnline(isOn, address); });
}

Trel_LinkRefusal Trel_LinkSession::RequestTakingPart(bool isOn, std::uint32_t address) {
  return Wish(mShell, [&](Core& core, Core::Time) { return core.State().RequestTakingPart(isOn, address); });
}

Trel_LinkRefusal Trel_LinkSession::PressButton(bool isOK) {
  return Wish(mShell, [&](Core& core, Core::Time) { return core.State().PressButton(isOK); });
}

std::string Trel_LinkSession::Explain(Trel_LinkRefusal refusal, const std::string& holder) {
  return Trel_LinkTexts::Describe(refusal, holder);
}

// --- who is there ---------------------------------------------------------------------------------------------------

bool Trel_LinkSession::SetOrderNumber(std::uint32_t address, std::int32_t number) {
  return mShell && mShell->Feed([&](Core& core, Core::Time now) { return core.SetOrderNumber(address, number, now); });
}

bool Trel_LinkSession::SetSystemName(const char* name) {
  if (!mShell || name == nullptr) {
    return false;
  }
  mShell->Rename(name);
  return true;
}

bool Trel_LinkSession::DisconnectSystem(std::uint32_t address) {
  return mShell && mShell->Feed([&](Core& core, Core::Time now) { return core.DisconnectSystem(address, now); });
}
