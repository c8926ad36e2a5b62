#pragma once

#include "link/session/Trel_SessionTypes.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <vector>

/// The master's list: who is in the link, who may join it, and in which order they are. No threads, no network; the
/// owner guards it.
class Trel_SystemRoster {
public:
  /// The master itself has place 1.
  explicit Trel_SystemRoster(Trel_SessionSystem master);

  void SetMasterAddress(std::uint32_t address) { mMaster.address = address; }

  enum class Verdict : std::uint8_t { admitted, notAllowed, full, identifierUsed };
  struct Admission {
    Verdict mVerdict;
    Trel_SessionSystem mSystem; ///< admitted: the newcomer with its place; identifier used: the rival
  };
  /// A system that comes back gets the place that it had, if that is free.
  Admission Admit(const Trel_SessionSystem& newcomer, bool isAllowed, std::int32_t maxSatellites);
  /// What was known of the system; nothing when it was not here.
  std::optional<Trel_SessionSystem> Remove(std::uint32_t address);

  std::optional<Trel_SessionSystem> Find(std::uint32_t address) const;
  bool Rename(std::uint32_t address, const std::string& name);
  /// The systems whose place has changed; empty when the system is not here or the place is below 1.
  std::vector<Trel_SessionSystem> Move(std::uint32_t address, std::int32_t place);

  /// True when a system that is here became linked by this.
  bool SetLinked(std::uint32_t address);
  std::set<std::uint32_t> GetLinkedAddresses() const;
  /// In their order, the master included.
  std::vector<Trel_SessionSystem> GetSystems() const;

private:
  struct Satellite {
    Trel_SessionSystem mSystem;
    bool mIsLinked = false;
  };

  Trel_SessionSystem* FindRecord(std::uint32_t address);
  bool IsTaken(std::int32_t place) const;
  std::int32_t PlaceFor(std::uint32_t address);

  Trel_SessionSystem mMaster;
  std::map<std::uint32_t, Satellite> mSatellites;
  std::map<std::uint32_t, std::int32_t> mFormerPlaces; // of those that have gone
};
