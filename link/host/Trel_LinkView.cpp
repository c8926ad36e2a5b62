#include "link/host/Trel_LinkView.h"

#include <trel/Trel_CommManager.h>

#include <utility>

void Trel_LinkView::SetSystems(std::vector<Trel_System> systems, std::set<std::uint32_t> linked, bool isLinked) {
  for (const Trel_System& system : systems) {
    Trel_CommManager::SetPeerName(system.GetIPAddress(), system.GetSystemName());
  }
  const std::lock_guard lock(mMutex);
  mSystems = std::move(systems);
  mLinked = std::move(linked);
  mIsLinked = isLinked;
}

std::vector<Trel_System> Trel_LinkView::GetSystems() const {
  const std::lock_guard lock(mMutex);
  return mSystems;
}

std::set<std::uint32_t> Trel_LinkView::GetLinkedAddresses() const {
  const std::lock_guard lock(mMutex);
  return mLinked;
}

bool Trel_LinkView::IsLinked() const {
  const std::lock_guard lock(mMutex);
  return mIsLinked;
}
