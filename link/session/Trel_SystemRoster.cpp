#include "link/session/Trel_SystemRoster.h"

#include <algorithm>
#include <utility>

namespace {

constexpr std::int32_t kMasterPlace = 1;
constexpr std::size_t kMostFormerPlaces = 256; // more than ever come and go in a studio

} // namespace

Trel_SystemRoster::Trel_SystemRoster(Trel_SessionSystem master) : mMaster(std::move(master)) {
  mMaster.place = kMasterPlace;
}

Trel_SystemRoster::Admission Trel_SystemRoster::Admit(const Trel_SessionSystem& newcomer, bool isAllowed,
                                                      std::int32_t maxSatellites) {
  const auto isRival = [&newcomer](const Trel_SessionSystem& system) {
    return newcomer.uniqueID != 0 && system.uniqueID == newcomer.uniqueID && system.address != newcomer.address;
  };
  if (!isAllowed) {
    return {Verdict::notAllowed, newcomer};
  }
  for (const Trel_SessionSystem& system : GetSystems()) {
    if (isRival(system)) {
      return {Verdict::identifierUsed, system};
    }
  }
  if (static_cast<std::int64_t>(mSatellites.size()) >= maxSatellites) {
    return {Verdict::full, newcomer};
  }
  Satellite satellite{newcomer, false};
  satellite.mSystem.place = PlaceFor(newcomer.address);
  mSatellites[newcomer.address] = satellite;
  return {Verdict::admitted, satellite.mSystem};
}

std::optional<Trel_SessionSystem> Trel_SystemRoster::Remove(std::uint32_t address) {
  const auto satellite = mSatellites.find(address);
  if (satellite == mSatellites.end()) {
    return std::nullopt;
  }
  const Trel_SessionSystem system = satellite->second.mSystem;
  mSatellites.erase(satellite);
  if (mFormerPlaces.size() < kMostFormerPlaces) {
    mFormerPlaces[address] = system.place;
  }
  return system;
}

std::optional<Trel_SessionSystem> Trel_SystemRoster::Find(std::uint32_t address) const {
  if (address == mMaster.address) {
    return mMaster;
  }
  const auto satellite = mSatellites.find(address);
  return satellite != mSatellites.end() ? std::optional(satellite->second.mSystem) : std::nullopt;
}

bool Trel_SystemRoster::Rename(std::uint32_t address, const std::string& name) {
  Trel_SessionSystem* const system = FindRecord(address);
  if (system != nullptr) {
    system->name = name;
  }
  return system != nullptr;
}

std::vector<Trel_SessionSystem> Trel_SystemRoster::Move(std::uint32_t address, std::int32_t place) {
  Trel_SessionSystem* const system = FindRecord(address);
  if (system == nullptr || place < kMasterPlace) {
    return {};
  }
  const std::int32_t before = system->place;
  std::vector<Trel_SessionSystem> changed;
  for (const Trel_SessionSystem& other : GetSystems()) {
    if (other.place == place && other.address != address) {
      Trel_SessionSystem* const record = FindRecord(other.address);
      record->place = before;
      changed.push_back(*record);
    }
  }
  system->place = place;
  changed.push_back(*system);
  return changed;
}

bool Trel_SystemRoster::SetLinked(std::uint32_t address) {
  const auto satellite = mSatellites.find(address);
  if (satellite == mSatellites.end() || satellite->second.mIsLinked) {
    return false;
  }
  satellite->second.mIsLinked = true;
  return true;
}

std::set<std::uint32_t> Trel_SystemRoster::GetLinkedAddresses() const {
  std::set<std::uint32_t> addresses;
  for (const auto& [address, satellite] : mSatellites) {
    if (satellite.mIsLinked) {
      addresses.insert(address);
    }
  }
  return addresses;
}

std::vector<Trel_SessionSystem> Trel_SystemRoster::GetSystems() const {
  std::vector<Trel_SessionSystem> systems{mMaster};
  for (const auto& [address, satellite] : mSatellites) {
    systems.push_back(satellite.mSystem);
  }
  std::stable_sort(systems.begin(), systems.end(),
                   [](const Trel_SessionSystem& a, const Trel_SessionSystem& b) { return a.place < b.place; });
  return systems;
}

Trel_SessionSystem* Trel_SystemRoster::FindRecord(std::uint32_t address) {
  if (address == mMaster.address) {
    return &mMaster;
  }
  const auto satellite = mSatellites.find(address);
  return satellite != mSatellites.end() ? &satellite->second.mSystem : nullptr;
}

bool Trel_SystemRoster::IsTaken(std::int32_t place) const {
  return mMaster.place == place || std::any_of(mSatellites.begin(), mSatellites.end(), [place](const auto& entry) {
           return entry.second.mSystem.place == place;
         });
}

std::int32_t Trel_SystemRoster::PlaceFor(std::uint32_t address) {
  const auto former = mFormerPlaces.find(address);
  if (former != mFormerPlaces.end()) {
    const std::int32_t place = former->second;
    mFormerPlaces.erase(former);
    if (!IsTaken(place)) {
      return place;
    }
  }
  const auto isReserved = [this](std::int32_t place) {
    return std::any_of(mFormerPlaces.begin(), mFormerPlaces.end(),
                       [place](const auto& entry) { return entry.second == place; });
  };
  std::int32_t place = kMasterPlace;
  while (IsTaken(place) || isReserved(place)) {
    ++place;
  }
  return place;
}
