#include "tools/trel/host/Host_Session.h"

#include "tools/trel/host/Host_Error.h"
#include "tools/trel/host/Host_Events.h"
#include "tools/trel/host/Host_Options.h"

#include <trel/Cmn_Printable.h>
#include <trel/Sys_Clock.h>
#include <trel/Sys_Socket.h>
#include <trel/Trel_CommManager.h>

#include <utility>

namespace {

/// What the user of this program can do about a refusal.
const char* AdviceFor(Trel_LinkRefusal refusal) {
  switch (refusal) {
  case Trel_LinkRefusal::notLinked:
    return "; wait for it with: wait linked 1";
  case Trel_LinkRefusal::notInControl:
    return "; ask for it with: control";
  case Trel_LinkRefusal::clockNotLocked:
    return "; wait for it with: wait locked";
  case Trel_LinkRefusal::notPrimed:
    return "; prime first with: prime";
  case Trel_LinkRefusal::noDialog:
    return "; put one up with: dialog TEXT";
  case Trel_LinkRefusal::unknownSystem:
    return "; see systems";
  case Trel_LinkRefusal::notMaster:
    return "; type this at the master";
  default:
    return "";
  }
}

} // namespace

Host_Session::Host_Session(const Host_Options& options, Host_Events& events)
    : mIsMaster(options.isMaster), mZeroTime(Sys_Clock::Microseconds()), mEvents(events), mLinkEvents(options.isMaster),
      mSession(SettingsFor(options)), mStarts(mSession, options.isMaster, options.maxLate) {}

Trel_LinkSession::Settings Host_Session::SettingsFor(const Host_Options& options) {
  Trel_LinkSession::Settings settings;
  settings.isMaster = options.isMaster;
  settings.masterAddress = options.masterAddress;
  settings.wantsMesh = options.mesh;
  settings.zeroTime = mZeroTime;
  settings.onEvent = [this](const Trel_LinkEvent& event) { OnEvent(event); };
  settings.onPrime = [this](const Trel_PlayRange& /*range*/) {
    mStarts.GiveUp();
    return true;
  };
  settings.onStart = [this](const Trel_AgreedStart& start) { return mStarts.Begin(start); };
  settings.onStop = [this] { mStarts.GiveUp(); };
  return settings;
}

std::uint32_t Host_Session::OwnAddress() { return Trel_CommManager::GetAdaptorIPAddress(); }

std::string Host_Session::NameOf(std::uint32_t address) const {
  for (const Trel_System& system : mSession.GetSystems()) {
    if (system.GetIPAddress() == address && *system.GetSystemName() != '\0') {
      return Cmn_Printable(system.GetSystemName()) + " (" + Sys_Socket::DecodeIPAddress(address) + ")";
    }
  }
  return Sys_Socket::DecodeIPAddress(address);
}

void Host_Session::Expect(Trel_LinkRefusal refusal) const {
  if (refusal != Trel_LinkRefusal::none) {
    const std::uint32_t holder = mSession.GetSystemInControl();
    throw Host_Error(Trel_LinkSession::Explain(refusal, holder != 0 ? NameOf(holder) : "") + AdviceFor(refusal));
  }
}

std::int64_t Host_Session::Epoch() const { return Sys_Clock::ToRaw(mZeroTime); }

void Host_Session::OnEvent(const Trel_LinkEvent& event) {
  Host_Event told = mLinkEvents.Translate(event);
  if (event.kind == Trel_LinkEvent::Kind::startFailed) {
    if (const auto late = mStarts.TooLate(event.start.runningTime)) {
      told.fields["late_us"] = *late;
      told.text += event.words.empty() ? mStarts.LimitText() : ""; // otherwise the words are those of Host_Starts
    }
  }
  if (event.kind == Trel_LinkEvent::Kind::started) { // which is told a little later
    told.rawTime = mStarts.BegunAt(event.start.runningTime).value_or(told.rawTime);
  }
  mEvents.Tell(told);
}
