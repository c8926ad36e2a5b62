#include "link/host/Trel_LinkRole.h"

#include "link/host/Trel_LinkTexts.h"

#include <trel/Trel_CommManager.h>

Trel_LinkRole::~Trel_LinkRole() = default;

void Trel_LinkRole::TakeConnect(const Trel_Cmd_Connect& command) {
  if (mSettings.mOnConnect) {
    mSettings.mOnConnect(command.GetIPAddressFrom());
  }
  OnConnect(command);
}

void Trel_LinkRole::Tell(Kind kind, std::uint32_t address, const std::string& text, std::int64_t value,
                         std::int32_t uniqueID) const {
  if (mSettings.mOnEvent) {
    mSettings.mOnEvent({kind, address, uniqueID, value, Trel_LinkTexts::Harmless(text)});
  }
}

bool Trel_LinkRole::LetGo(std::uint32_t asker) {
  const auto ticket = mView.WithControl([](const Trel_ControlState& control) { return control.AskToLetGo(); });
  if (!ticket || (mSettings.mMayGiveControl && !mSettings.mMayGiveControl(asker))) {
    return false;
  }
  return mView.WithControl([&ticket](Trel_ControlState& control) { return control.LetGo(*ticket); });
}

std::int32_t Trel_LinkRole::PlaceInOrder() const {
  for (const Trel_System& system : mView.GetSystems()) {
    if (system.GetIPAddress() == Trel_CommManager::GetAdaptorIPAddress()) {
      return system.GetOrderNumber();
    }
  }
  return 0;
}
