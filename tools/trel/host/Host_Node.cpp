#include "tools/trel/host/Host_Node.h"

#include "tools/trel/common/ExitStatus.h"
#include "tools/trel/common/Status_Server.h"
#include "tools/trel/common/Texts.h"
#include "tools/trel/host/Host_Commands.h"
#include "tools/trel/host/Host_Console.h"
#include "tools/trel/host/Host_Events.h"
#include "tools/trel/host/Host_Samples.h"
#include "tools/trel/host/Host_Status.h"

#include <trel/Cmn_Printable.h>
#include <trel/Sys_Socket.h>
#include <trel/Trel_CommManager.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

std::string DefaultName() {
  std::string name = Sys_Socket::GetHostName();
  name.resize(std::min(name.size(), TCPE_System::kSystemNameSize - 1));
  return name.empty() ? "trel host" : name;
}

} // namespace

Host_Node::Host_Node(const Host_Options& options, Host_Events& events)
    : mOptions(options), mEvents(events), mSession(options, events) {}

int Host_Node::Run() {
  if (!StartEngine()) {
    return kExitFailure;
  }
  TellReady();
  if (!mSession->Start()) {
    mEvents.Tell({.kind = "error", .text = "cannot start: this machine gives no more threads; end some programs"});
    return kExitFailure;
  }
  int exitStatus = kExitSuccess;
  {
    const Status_Server statusServer([this] { return Host_Status(mSession); });
    if (!statusServer.Trouble().empty()) {
      mEvents.Tell(
          {.kind = "not_watchable", .text = "trel watch cannot look into this host: " + statusServer.Trouble()});
    }
    std::optional<Host_Samples> samples;
    if (!mOptions.recording.empty()) {
      samples.emplace(mSession, mEvents);
    }
    if (mOptions.trial.IsClockMeasured() && !mOptions.isMaster) {
      Host_ClockSampler::OnSample onSample;
      if (mOptions.trial.clockSamples) {
        onSample = [this](std::int64_t rawTime, nlohmann::json fields) {
          mEvents.Tell({.kind = "clock", .fields = std::move(fields), .rawTime = rawTime});
        };
      }
      mSampler.emplace(std::move(onSample));
    }
    exitStatus = Converse();
  }
  mSampler.reset();
  LeaveLink();
  if (const std::string problem = mCapture ? mCapture->Problem() : ""; !problem.empty()) {
    mEvents.Tell({.kind = "error", .text = problem + "; the capture is not complete"});
    exitStatus = exitStatus == kExitSuccess ? kExitFailure : exitStatus;
  }
  mEvents.Tell({.kind = "ended", .text = "ended", .isDetail = true});
  return exitStatus;
}

bool Host_Node::StartEngine() {
  Trel_CommManager::SetSystemName(mOptions.name.empty() ? DefaultName().c_str() : mOptions.name.c_str());
  if (!mOptions.captureFile.empty()) {
    try {
      mCapture.emplace(mOptions.captureFile).CaptureEngine();
    } catch (const std::runtime_error& error) {
      mEvents.Tell({.kind = "error", .text = error.what()});
      return false;
    }
  }
  if (mOptions.identifier != 0) {
    Trel_CommManager::SetUniqueID(mOptions.identifier);
  }
  const std::string failure = mOptions.engine.Start(&Trel_LinkSession::OnNetworkError);
  if (!failure.empty()) {
    mEvents.Tell({.kind = "error", .text = failure});
  }
  return failure.empty();
}

std::string Host_Node::Notice() const {
  const std::string report = Trel_CommManager::GetInitializationReport();
  if (!report.empty()) {
    return report + "; choose one with --address";
  }
  constexpr std::uint32_t kLoopback = 127; // first byte of its addresses
  return mOptions.engine.address == 0 && Host_Session::OwnAddress() >> 24U == kLoopback
             ? "no network adaptor is up, so only systems on this machine can be reached: plug in a network cable"
             : "";
}

void Host_Node::TellReady() const {
  const std::string name = Trel_CommManager::GetSystemName();
  const std::string notice = Notice();
  const std::string address = Sys_Socket::DecodeIPAddress(Host_Session::OwnAddress());
  const char* const role = RoleText(mOptions.isMaster ? eTCPE_SystemType_Master : eTCPE_SystemType_Satellite);
  nlohmann::json fields = {{"role", role},
                           {"name", name},
                           {"address", address},
                           {"port", Trel_CommManager::GetCommunicationPort()},
                           {"discovery_port", Trel_CommManager::GetDiscoveryPort()},
                           {"numbering", Trel_CommManager::GetSupportsMarlo11() ? "current" : "legacy"},
                           {"notice", notice}};
  if (mOptions.isMaster) {
    fields["epoch_us"] = mSession.Epoch();
  }
  mEvents.Tell({.kind = "ready",
                .text = Cmn_Printable(name) + ", " + role + " at " + address + " port " +
                        std::to_string(Trel_CommManager::GetCommunicationPort()) +
                        (notice.empty() ? "" : "\n" + notice) +
                        (Host_Input::IsTerminal() ? "\nType help for the commands." : ""),
                .fields = std::move(fields)});
}

int Host_Node::Converse() {
  Host_Commands commands(mSession, mInput, mSampler ? &*mSampler : nullptr);
  Host_Console console(commands.Table(), mEvents);
  bool hasFailed = false;
  while (!commands.HasQuit()) {
    if (Host_Input::HasPrompt() && !mOptions.json) {
      mEvents.Tell({.kind = "prompt"});
    }
    std::string line;
    const Host_Input::Outcome outcome = mInput.ReadLine(&line);
    if (outcome == Host_Input::Outcome::end || outcome == Host_Input::Outcome::signalled) {
      break;
    }
    if (outcome == Host_Input::Outcome::lineTooLong) {
      mEvents.Tell({.kind = "error", .text = "a line is too long and was left out", .isAnswer = true});
    }
    const bool isDone = outcome == Host_Input::Outcome::line && console.Execute(line);
    hasFailed = hasFailed || !isDone;
  }
  if (mInput.Signal() != 0) {
    return kExitSignalled + mInput.Signal();
  }
  // Somebody who types has seen what failed; a script has not.
  return hasFailed && !Host_Input::IsTerminal() ? kExitFailure : kExitSuccess;
}

void Host_Node::LeaveLink() {
  if (mSession->IsLinked()) {
    mSession->Stop(); // tells the others
    Trel_CommManager::Terminate();
  } else {
    Trel_CommManager::Terminate(); // ends an attempt to connect
    mSession->Stop();
  }
}
