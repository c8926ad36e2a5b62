#include "Demo_Satellite.h"

#include "ClockTimes.h"
#include "Demo_ClockSampler.h"
#include "ExitStatus.h"
#include "HandleCommand.h"
#include "Player.h"
#include "Texts.h"

#include <trel/Sys_Clock.h>
#include <trel/Trel_Cmd_Transport.h>
#include <trel/Trel_CommManager.h>
#include <trel/Trel_CorrelatedClockMgr.h>
#include <trel/Trel_Messenger.h>
#include <trel/host/Trel_StartHelper.h>

namespace {

constexpr std::chrono::seconds kConnectTimeOut{15};
constexpr std::chrono::milliseconds kLinkRetryPeriod{50};

} // namespace

Demo_Satellite::Demo_Satellite(const Demo_NodeOptions& options) : Demo_Node(options) {}

Demo_Satellite::~Demo_Satellite() = default;

int Demo_Satellite::Run() {
  Prepare();
  HandleCommand<Trel_Cmd_Prime, &Demo_Satellite::OnPrime>(this);
  HandleCommand<Trel_Cmd_StartPlayback, &Demo_Satellite::OnStartPlayback>(this);
  HandleCommand<Trel_Cmd_StopPlayback, &Demo_Satellite::OnStopPlayback>(this);
  mPlayer = std::make_unique<Player>(
      [](std::int64_t runningTime) { return PredictedHostTime(runningTime); },
      [this](std::int64_t runningTime) {
        const bool isTime = Trel_StartHelper::WaitUntilRunningTime(runningTime);
        if (!isTime && !Locked(mFinish) && !Locked(mNetworkError)) {
          EmitFailure("cannot start: the clock is not locked");
        }
        return isTime;
      },
      [this](std::int64_t runningTime, std::int64_t rawTime) { ReportStart(runningTime, rawTime); });
  if (!StartEngine() || !Link()) {
    StopEngine();
    return kExitFailure;
  }
  Emit({.kind = Demo_Event::Kind::linked});

  Demo_ClockSampler::OnClock onClock;
  if (mOptions.tellsClock) {
    onClock = [this](std::int64_t rawTime, const nlohmann::json& clock) {
      Emit({.kind = Demo_Event::Kind::clock, .rawTime = rawTime, .clock = clock});
    };
  }
  Demo_ClockSampler sampler([this] { Emit({.kind = Demo_Event::Kind::locked}); }, onClock);
  IdleUntil(SteadyClock::time_point::max(), [this] { return mFinish || mNetworkError; });
  sampler.Stop();
  const auto finish = Locked(mFinish);
  if (finish) {
    const auto errors = sampler.Errors(finish->epoch);
    if (!errors.empty()) {
      const auto& bounds = sampler.ErrorBounds();
      Emit({.kind = Demo_Event::Kind::clockError,
            .clockError = Demo_PercentilesOf(errors),
            .errorBound = bounds.empty() ? Demo_Percentiles() : Demo_PercentilesOf(bounds)});
    }
    Trel_CommManager::Disconnect(mOptions.master);
  } else {
    const auto error = Locked(mNetworkError);
    Emit({.kind = Demo_Event::Kind::lost, .address = mOptions.master, .text = NetworkErrorText(*error)});
  }
  StopEngine();
  return finish ? kExitSuccess : kExitFailure;
}

bool Demo_Satellite::Link() {
  const auto deadline = SteadyClock::now() + kConnectTimeOut;
  while (!Trel_CommManager::Connect(mOptions.master)) {
    // The master may not listen yet; but what it has refused once, it refuses again.
    IdleUntil(SteadyClock::now() + kLinkRetryPeriod, [this] { return mNetworkError.has_value(); });
    const auto error = Locked(mNetworkError);
    if (error || SteadyClock::now() > deadline) {
      EmitFailure(error ? std::string("cannot link: ") + NetworkErrorText(*error) : "cannot link in time");
      return false;
    }
  }
  Trel_CommManager::SetMasterSystemIPAddress(mOptions.master);
  return true;
}

void Demo_Satellite::OnNetworkError(TCPE_CommManager::ENetworkError error, std::uint32_t /*address*/) {
  const std::lock_guard lock(mMutex);
  mNetworkError = error;
  mChanged.notify_all();
}

void Demo_Satellite::OnPrime(Trel_Cmd_Prime& /*command*/) {
  Trel_Messenger::SendState(eTrel_State_PrimeCompleted, mOptions.master);
}

void Demo_Satellite::OnStartPlayback(Trel_Cmd_StartPlayback& command) {
  mPlayer->Start(command.GetStartAtRunningTime());
}

void Demo_Satellite::OnStopPlayback(Trel_Cmd_StopPlayback& /*command*/) {
  Trel_Messenger::SendState(eTrel_State_Stop, mOptions.master);
}

void Demo_Satellite::ReportStart(std::int64_t runningTime, std::int64_t rawTime) {
  Emit({.kind = Demo_Event::Kind::started, .rawTime = rawTime, .value = runningTime});
  const std::int64_t predicted = Trel_CorrelatedClockMgr::GetRunningTime(Sys_Clock::FromRaw(rawTime));
  Trel_Messenger::ReportPlayStartData(predicted, predicted, predicted, mOptions.master);
}
