#pragma once

#include <trel/Trel_Enumerations.h>

#include <array>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

/// What the systems of the link mirror to each other, as this one knows it. Thread-safe.
class Host_State {
public:
  /// Timeline positions, microseconds.
  struct Selection {
    std::int64_t in = 0;
    std::int64_t out = 10'000'000;

    bool operator==(const Selection&) const = default;
  };
  static constexpr std::size_t kGroups = 4;

  /// Set by the system in control, the same everywhere.
  struct Shared {
    bool loopPlay = false;
    Selection selection;
    std::array<bool, kGroups> groups = {};
  };
  /// Of one system, told by itself.
  struct System {
    ETrel_State transport = eTrel_State_Stop;
    ETrel_LinkState link = eTrel_LinkState_LinkedNotPlayable;
    bool isClockLocked = false;
    bool isSoloed = false;
    bool isRecording = false;
    bool isOnline = false;
    std::string dialog; // its text; empty: none
    ETrel_VideoReferenceFormat videoReference = eTrel_VideoReferenceFormat_Undefined;
  };

  Shared GetShared() const { return Get(mShared); }
  System GetOwn() const { return Get(mOwn); }
  std::map<std::uint32_t, System> GetOthers() const { return Get(mOthers); }
  /// Whether this system takes part when the others play.
  bool IsTakingPart() const { return Get(mOwn).link >= eTrel_LinkState_LinkedNotPlayable; }

  // Each change is one step; what it returns is returned.
  template <class Change>
  auto ChangeShared(Change change) {
    const std::lock_guard lock(mMutex);
    return change(mShared);
  }
  template <class Change>
  auto ChangeOwn(Change change) {
    const std::lock_guard lock(mMutex);
    return change(mOwn);
  }
  /// Of another system, by address; a system not known yet counts as fresh.
  template <class Change>
  auto ChangeOther(std::uint32_t address, Change change) {
    const std::lock_guard lock(mMutex);
    return change(mOthers[address]);
  }
  /// Forgets another system if a condition holds: nothing is taken in between the look and that. False when there was
  /// nothing to forget.
  template <class Condition>
  bool ForgetIf(std::uint32_t address, Condition condition) {
    const std::lock_guard lock(mMutex);
    return condition() && mOthers.erase(address) != 0;
  }

private:
  template <class Value>
  Value Get(const Value& value) const {
    const std::lock_guard lock(mMutex);
    return value;
  }

  mutable std::mutex mMutex;
  Shared mShared;
  System mOwn;
  std::map<std::uint32_t, System> mOthers;
};
