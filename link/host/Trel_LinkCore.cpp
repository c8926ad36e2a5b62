#include "link/host/Trel_LinkCore.h"

#include "link/host/Trel_LinkCommands.h"
#include "link/host/Trel_LinkMaster.h"
#include "link/host/Trel_LinkSatellite.h"

#include <trel/Cmn_Assert.h>
#include <trel/Trel_CommManager.h>

#include <utility>
#include <vector>

std::mutex Trel_LinkCore::sMutex;
std::condition_variable Trel_LinkCore::sUnused;
Trel_LinkCore* Trel_LinkCore::sAttached = nullptr;
std::int32_t Trel_LinkCore::sUses = 0;

namespace {

/// Registered while a core is attached.
std::vector<std::int32_t>& Identifiers() {
  static std::vector<std::int32_t> identifiers;
  return identifiers;
}

} // namespace

class Trel_LinkCore::Use {
public:
  Use() {
    const std::lock_guard lock(sMutex);
    mCore = sAttached;
    sUses += mCore != nullptr ? 1 : 0;
  }
  ~Use() {
    if (mCore != nullptr) {
      const std::lock_guard lock(sMutex);
      --sUses;
      sUnused.notify_all();
    }
  }
  Use(const Use&) = delete;
  Use& operator=(const Use&) = delete;

  Trel_LinkCore* Core() const { return mCore; }

private:
  Trel_LinkCore* mCore;
};

Trel_LinkCore::Trel_LinkCore(Trel_LinkSession::Settings settings) : mSettings(std::move(settings)) {
  if (mSettings.mIsMaster) {
    mRole = std::make_unique<Trel_LinkMaster>(mSettings, mView, mWorker);
  } else {
    mRole = std::make_unique<Trel_LinkSatellite>(mSettings, mView, mWorker);
  }
}

bool Trel_LinkCore::Attach() {
  {
    const std::lock_guard lock(sMutex);
    const bool isOnlyOne = sAttached == nullptr && sUses == 0;
    Cmn_Assert::HandleMagicAssert(isOnlyOne, R"(only one session@$^$@..\Trel_LinkSession)", __LINE__);
    if (!isOnlyOne) {
      return false;
    }
    sAttached = this;
  }
  RegisterAll();
  return true;
}

void Trel_LinkCore::Detach() {
  UnregisterAll();
  std::unique_lock lock(sMutex);
  sAttached = nullptr;
  sUnused.wait(lock, [] { return sUses == 0; });
}

bool Trel_LinkCore::Start() {
  if (!Trel_CommManager::IsInitialized()) {
    return false;
  }
  const std::lock_guard lock(mStartMutex);
  if (mWorker.IsRunning()) {
    mRole->Resume();
    return true;
  }
  const bool isMaster = mSettings.mIsMaster;
  Trel_CommManager::SetIsSatellite(!isMaster);
  Trel_CommManager::SetIsMasterClock(isMaster);
  Trel_CommManager::SetSystemType(isMaster ? eTCPE_SystemType_Master : eTCPE_SystemType_Satellite);
  mRole->Begin();
  Trel_CommManager::SetAllowSatellitesToConnectToMasterSystem(isMaster);
  const bool isStarted = mWorker.Start([this](std::int64_t now) { return mRole->Tick(now); }, [this] { mRole->End(); });
  if (!isStarted) {
    mRole->End();
  }
  return isStarted;
}

void Trel_LinkCore::Stop() {
  const bool isOutside = !mWorker.IsOnOwnThread();
  Cmn_Assert::HandleMagicAssert(isOutside, R"(! IsOnOwnThread()@$^$@..\Trel_LinkSession)", __LINE__);
  if (isOutside) {
    mWorker.Stop();
  }
}

void Trel_LinkCore::OnNetworkError(ETCPE_NetworkError error, std::uint32_t address) {
  const Use use;
  if (Trel_LinkCore* core = use.Core()) {
    core->mRole->OnNetworkError(error, address);
  }
}

template <class Command, class Handle>
void Trel_LinkCore::Register(Handle /*handle*/, std::int32_t identifier) {
  Trel_Command::SetDoItCommand(identifier, [](TCPE_Command* received) {
    const Use use;
    auto* const command = dynamic_cast<Command*>(received);
    if (use.Core() != nullptr && command != nullptr) {
      Handle()(*use.Core()->mRole, *command); // without captures it has no state
    }
  });
  Identifiers().push_back(identifier);
}

void Trel_LinkCore::RegisterAll() {
  using Role = Trel_LinkRole;
  Register<Trel_Cmd_Connect>([](auto& role, auto& command) { role.TakeConnect(command); });
  Register<Trel_Cmd_Disconnect>(
      [](Role& role, Trel_Cmd_Disconnect& command) { role.OnDisconnect(command.GetIPAddressFrom()); },
      Trel_CommManager::GetSupportsMarlo11() ? eTrel_Cmd_Disconnect : eTrel_LegacyCmd_Disconnect);
  Register<Trel_Cmd_ConnectComplete>([](auto& role, auto& command) { role.OnConnectComplete(command); });
  Register<Trel_Cmd_ConnectTo>([](auto& role, auto& command) { role.OnConnectTo(command); });
  Register<Trel_Cmd_DisconnectFrom>([](auto& role, auto& command) { role.OnDisconnectFrom(command); });
  Register<Trel_Cmd_ListSystems>([](auto& role, auto& command) { role.OnListSystems(command); });
  Register<Trel_Cmd_SetMasterSystem>([](auto& role, auto& command) { role.OnSetMasterSystem(command); });
  Register<Trel_Cmd_SetOrderNumber>([](auto& role, auto& command) { role.OnSetOrderNumber(command); });
  Register<Trel_Cmd_SetSystemName>([](auto& role, auto& command) { role.OnSetSystemName(command); });
  Register<Trel_Cmd_SystemInControl>([](auto& role, auto& command) { role.OnSystemInControl(command); });
  Register<Trel_Cmd_RequestControl>([](Role& role, Trel_Cmd_RequestControl& command) {
    command.SetHasControl(role.OnRequestControl(command.GetIPAddressFrom()));
  });
  Register<Trel_Cmd_GetName>(
      [](Role&, Trel_Cmd_GetName& command) { command.SetName(Trel_CommManager::GetSystemName()); });
  Register<Trel_Cmd_GetType>(
      [](Role&, Trel_Cmd_GetType& command) { command.SetType(Trel_CommManager::GetSystemType()); });
  Register<Trel_Cmd_GetSystemInformation>([](Role& role, Trel_Cmd_GetSystemInformation& command) {
    const Trel_System local = Trel_LinkCommands::LocalSystem();
    command.SetName(local.GetSystemName());
    command.SetHostname(local.GetHostName());
    command.SetType(local.GetSystemType());
    command.SetOrderNumber(role.PlaceInOrder());
    command.SetUniqueID(local.GetUniqueID());
  });
  if (!Trel_CommManager::GetSupportsMarlo11()) {
    Register<Trel_Cmd_ConnectionFailed>(
        [](Role& role, Trel_Cmd_ConnectionFailed& command) { role.OnConnectionFailed(command); });
    return;
  }
  Register<Trel_Cmd_ConnectToComplete>([](auto& role, auto& command) { role.OnConnectToComplete(command); });
  Register<Trel_Cmd_DoConnectTo>([](auto& role, auto& command) { role.OnDoConnectTo(command); });
  Register<Trel_Cmd_DoConnectToComplete>([](auto& role, auto& command) { role.OnDoConnectToComplete(command); });
  Register<Trel_Cmd_AllConnectionsComplete>([](auto& role, auto& command) { role.OnAllConnectionsComplete(command); });
}

void Trel_LinkCore::UnregisterAll() {
  for (const std::int32_t identifier : std::exchange(Identifiers(), {})) {
    Trel_Command::SetDoItCommand(identifier, nullptr);
  }
}
