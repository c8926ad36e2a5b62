#include "link/host/Trel_LinkHandlers.h"

#include "foundation/Cmn_HostCall.h"
#include "link/host/Trel_LinkShell.h"
#include "link/host/Trel_SessionCommands.h"

#include <trel/Cmn_Assert.h>
#include <trel/Trel_Cmd_Project.h>
#include <trel/Trel_CommManager.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <utility>

std::mutex Trel_LinkHandlers::sMutex;
std::condition_variable Trel_LinkHandlers::sUnused;
Trel_LinkShell* Trel_LinkHandlers::sAttached = nullptr;
std::int32_t Trel_LinkHandlers::sUses = 0;
std::vector<std::int32_t> Trel_LinkHandlers::sIdentifiers;

namespace {

using Commands = Trel_SessionCommands;
using Core = Trel_SessionCore;
using Settings = Trel_LinkSession::Settings;

} // namespace

class Trel_LinkHandlers::Use {
public:
  Use() {
    const std::lock_guard lock(sMutex);
    mShell = sAttached;
    sUses += mShell != nullptr ? 1 : 0;
  }
  ~Use() {
    if (mShell != nullptr) {
      const std::lock_guard lock(sMutex);
      --sUses;
      sUnused.notify_all();
    }
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;

  Trel_LinkShell* Shell() const { return mShell; }

private:
  Trel_LinkShell* mShell;
};

bool Trel_LinkHandlers::Attach(Trel_LinkShell& shell) {
  {
    const std::lock_guard lock(sMutex);
    const bool isOnlyOne = sAttached == nullptr && sUses == 0;
    Cmn_Assert::HandleMagicAssert(isOnlyOne, R"(only one session@$^$@..\Trel_LinkSession)", __LINE__);
    if (!isOnlyOne) {
      return false;
    }
    sAttached = &shell;
  }
  RegisterAll(shell);
  return true;
}

void Trel_LinkHandlers::Detach() {
  UnregisterAll();
  std::unique_lock lock(sMutex);
  sAttached = nullptr;
  sUnused.wait(lock, [] { return sUses == 0; });
}

void Trel_LinkHandlers::OnNetworkError(ETCPE_NetworkError error, std::uint32_t address) {
  const Use use;
  if (Trel_LinkShell* const shell = use.Shell()) {
    shell->Feed([&](Core& core, Core::Time now) {
      core.NetworkError(address, error, Trel_CommManager::IsConnected(address), now);
    });
  }
}

template <class Command, class Handle>
void Trel_LinkHandlers::Register(Handle /*handle*/, std::int32_t identifier) {
  Trel_Command::SetDoItCommand(identifier, [](TCPE_Command* received) {
    const Use use;
    auto* const command = dynamic_cast<Command*>(received);
    if (use.Shell() != nullptr && command != nullptr) {
      Handle()(*use.Shell(), *command); // without captures it has no state
    }
  });
  sIdentifiers.push_back(identifier);
}

template <class... Command>
void Trel_LinkHandlers::RegisterMessages() {
  (Register<Command>([](Trel_LinkShell& shell, const Command& command) {
     shell.FeedWith(command, [&](Core& core, Core::Time now) {
       core.Received(command.GetIPAddressFrom(), Commands::Read(command), now);
     });
   }),
   ...);
}

void Trel_LinkHandlers::RegisterQueries() {
  Register<Trel_Cmd_GetName>(
      [](Trel_LinkShell&, Trel_Cmd_GetName& command) { command.SetName(Trel_CommManager::GetSystemName()); });
  Register<Trel_Cmd_GetType>(
      [](Trel_LinkShell&, Trel_Cmd_GetType& command) { command.SetType(Trel_CommManager::GetSystemType()); });
  Register<Trel_Cmd_GetSystemInformation>([](Trel_LinkShell& shell, Trel_Cmd_GetSystemInformation& command) {
    const Trel_SessionSystem local = Commands::LocalSystem();
    command.SetName(local.name.c_str());
    command.SetHostname(local.hostName.c_str());
    command.SetType(local.type);
    command.SetOrderNumber(shell.Ask([](const Core& core) { return core.GetPlace(); }));
    command.SetUniqueID(local.uniqueID);
  });
  Register<Trel_Cmd_GetState>([](Trel_LinkShell& shell, Trel_Cmd_GetState& command) {
    command.SetState(shell.Ask([](const Core& core) { return core.State().Own().transport; }));
  });
  Register<Trel_Cmd_GetTrackIsSoloed>([](Trel_LinkShell& shell, Trel_Cmd_GetTrackIsSoloed& command) {
    command.SetTrackIsSoloed(shell.Ask([](const Core& core) { return core.State().Own().isSoloed; }));
  });
  Register<Trel_Cmd_GetLoopPlay>([](Trel_LinkShell& shell, Trel_Cmd_GetLoopPlay& command) {
    command.SetLoopPlay(shell.Ask([](const Core& core) { return core.State().Shared().loopPlay; }));
  });
  Register<Trel_Cmd_GetCurrentSelection>([](Trel_LinkShell& shell, Trel_Cmd_GetCurrentSelection& command) {
    const auto [in, out] = shell.Ask([](const Core& core) { return core.State().Shared().selection; });
    command.SetPreRollStartTime(in);
    command.SetInTime(in);
    command.SetOutTime(out);
    command.SetPostRollStopTime(out);
    command.SetPlayStartMarkerTime(in);
  });
  Register<Trel_Cmd_GetStartDelay>([](Trel_LinkShell& shell, Trel_Cmd_GetStartDelay& command) {
    shell.AskStartDelay();
    const std::int64_t delay = shell.Ask([](const Core& core) { return core.Conductor().GetStartDelay(); });
    command.SetStartDelay(
        static_cast<std::uint32_t>(std::clamp<std::int64_t>(delay, 0, std::numeric_limits<std::uint32_t>::max())));
  });
  Register<Trel_Cmd_GetCurrentRunningTime>([](Trel_LinkShell& shell, Trel_Cmd_GetCurrentRunningTime& command) {
    if (const auto runningTime = shell.Clock().RunningTime(Sys_Clock::Microseconds())) {
      command.SetRunningTime(*runningTime);
    } else {
      command.SetError(eTCPE_CommErr_NoHandler);
    }
  });
}

void Trel_LinkHandlers::RegisterQuestions(const Trel_LinkShell& shell) {
  const auto answer = [](const auto& callback, auto& command) {
    const bool isAnswered =
        callback && Cmn_HostCall::Ask(Cmn_HostCall::Kind::session, false, [&] { return callback(command); });
    if (!isAnswered) {
      command.SetError(eTCPE_CommErr_NoHandler);
    }
    return isAnswered;
  };
  using Answer = decltype(answer);
  const Settings& settings = shell.GetSettings();
  Register<Trel_Cmd_GetPlayRange>([](Trel_LinkShell& to, Trel_Cmd_GetPlayRange& command) {
    if (to.GetSettings().getPlayRange) {
      Answer()(to.GetSettings().getPlayRange, command);
      return;
    }
    const auto [in, out] = to.Ask([](const Core& core) { return core.Conductor().GetRange(); });
    command.SetPreRollStart(in);
    command.SetInPoint(in);
    command.SetOutPoint(out);
    command.SetPostRollEnd(out);
    command.SetActualStartTime(in);
    command.SetPlaySpeed(Commands::kPlaySpeed);
    command.SetLoopPlay(to.Ask([](const Core& core) { return core.State().Shared().loopPlay; }));
  });
  // Without a handler the engine answers with an error; a host may register one of its own.
  if (settings.getDocument) {
    Register<Trel_Cmd_GetDocumentStartAndLength>(
        [](Trel_LinkShell& to, auto& command) { Answer()(to.GetSettings().getDocument, command); });
  }
  if (settings.getPosition) {
    Register<Trel_Cmd_GetPositionRunningTimeCorrelation>(
        [](Trel_LinkShell& to, auto& command) { Answer()(to.GetSettings().getPosition, command); });
  }
  if (settings.getFrameEdge) {
    Register<Trel_Cmd_GetFrameEdgeInRunningTime>(
        [](Trel_LinkShell& to, auto& command) { Answer()(to.GetSettings().getFrameEdge, command); });
  }
  if (settings.getProject) {
    Register<Trel_Cmd_GetProjectInfo>(
        [](Trel_LinkShell& to, auto& command) { Answer()(to.GetSettings().getProject, command); });
    Register<Trel_Cmd_GetProjectRate>([](Trel_LinkShell& to, Trel_Cmd_GetProjectRate& command) {
      Trel_Cmd_GetProjectInfo all;
      Answer()(to.GetSettings().getProject, all) ? command.SetProjectRate(all.GetProjectRate())
                                                 : command.SetError(eTCPE_CommErr_NoHandler);
    });
    Register<Trel_Cmd_GetEditPlayRate>([](Trel_LinkShell& to, Trel_Cmd_GetEditPlayRate& command) {
      Trel_Cmd_GetProjectInfo all;
      if (Answer()(to.GetSettings().getProject, all)) {
        command.SetPlayRate(all.GetEditPlayRate());
        command.SetDropFrame(all.GetDropFrame());
      } else {
        command.SetError(eTCPE_CommErr_NoHandler);
      }
    });
    Register<Trel_Cmd_GetDigitalCutRate>([](Trel_LinkShell& to, Trel_Cmd_GetDigitalCutRate& command) {
      Trel_Cmd_GetProjectInfo all;
      Answer()(to.GetSettings().getProject, all) ? command.SetDigitalCutRate(all.GetDigitalCutRate())
                                                 : command.SetError(eTCPE_CommErr_NoHandler);
    });
  }
}

void Trel_LinkHandlers::RegisterAll(const Trel_LinkShell& shell) {
  const bool isCurrent = Trel_CommManager::GetSupportsMarlo11();
  Register<Trel_Cmd_Connect>([](Trel_LinkShell& to, Trel_Cmd_Connect& command) { to.OnConnect(command); });
  Register<Trel_Cmd_Disconnect>([](Trel_LinkShell& to, Trel_Cmd_Disconnect& command) { to.OnDisconnect(command); },
                                isCurrent ? eTrel_Cmd_Disconnect : eTrel_LegacyCmd_Disconnect);
  Register<Trel_Cmd_RequestControl>([](Trel_LinkShell& to, Trel_Cmd_RequestControl& command) {
    command.SetHasControl(to.OnRequestControl(command));
  });
  RegisterMessages<Trel_Cmd_ConnectComplete, Trel_Cmd_ConnectTo, Trel_Cmd_DisconnectFrom, Trel_Cmd_ListSystems,
                   Trel_Cmd_SetMasterSystem, Trel_Cmd_SetOrderNumber, Trel_Cmd_SetSystemName,
                   Trel_Cmd_SystemInControl>();
  RegisterMessages<Trel_Cmd_Prime, Trel_Cmd_StartPlayback, Trel_Cmd_StopPlayback, Trel_Cmd_ReportPlayStartData>();
  RegisterMessages<Trel_Cmd_SendState, Trel_Cmd_ClockLockState, Trel_Cmd_UpdateLinkState, Trel_Cmd_RequestLink,
                   Trel_Cmd_UpdateOnlineState, Trel_Cmd_RequestOnline, Trel_Cmd_UpdateSystemIsRecording,
                   Trel_Cmd_TrackIsSoloed, Trel_Cmd_SoloAllTracks, Trel_Cmd_SetLoopPlay, Trel_Cmd_SetCurrentSelection,
                   Trel_Cmd_RequestGroupEnable, Trel_Cmd_UpdateGroupEnable, Trel_Cmd_VideoReferenceFormat,
                   Trel_Cmd_VideoReferenceAvailable, Trel_Cmd_DialogOnScreen, Trel_Cmd_OKDialog,
                   Trel_Cmd_CancelDialog>();
  if (isCurrent) {
    RegisterMessages<Trel_Cmd_ConnectToComplete, Trel_Cmd_DoConnectTo, Trel_Cmd_DoConnectToComplete,
                     Trel_Cmd_AllConnectionsComplete>();
  } else {
    RegisterMessages<Trel_Cmd_ConnectionFailed>();
  }
  RegisterQueries();
  RegisterQuestions(shell);
}

void Trel_LinkHandlers::UnregisterAll() {
  for (const std::int32_t identifier : std::exchange(sIdentifiers, {})) {
    Trel_Command::SetDoItCommand(identifier, nullptr);
  }
}
