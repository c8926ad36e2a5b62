#pragma once

#include <trel/Trel_Enumerations.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>

/// @file
/// What the systems of a link tell each other, as plain values. Timeline positions and times are microseconds, IPv4
/// addresses in host order.

/// A range of the timeline.
struct Trel_PlayRange {
  std::int64_t in = 0;
  std::int64_t out = 10'000'000;

  bool operator==(const Trel_PlayRange&) const = default;
};

/// Set by the system in control, the same everywhere.
struct Trel_SharedSettings {
  static constexpr std::size_t kGroups = 4;

  bool loopPlay = false;
  Trel_PlayRange selection{};
  std::array<bool, kGroups> groups{};

  bool operator==(const Trel_SharedSettings&) const = default;
};

/// Of one system, told by itself.
struct Trel_SystemState {
  ETrel_State transport = eTrel_State_Stop;
  ETrel_LinkState link = eTrel_LinkState_LinkedNotPlayable;
  bool isClockLocked = false; ///< always, at the master
  bool isSoloed = false;      ///< a track is
  bool isRecording = false;
  bool isOnline = false;
  ETrel_VideoReferenceFormat videoReference = eTrel_VideoReferenceFormat_Undefined;
  std::string dialog{}; ///< the text of the one on its screen; empty: none

  /// Whether it plays when the others do.
  bool IsTakingPart() const { return link >= eTrel_LinkState_LinkedNotPlayable; }
  bool operator==(const Trel_SystemState&) const = default;
};

/// What a system is to do at an agreed start.
struct Trel_AgreedStart {
  std::int64_t runningTime = 0; ///< at which to begin; names the start
  std::int64_t hostTime = 0;    ///< the same on this system's clock, as predicted when the host was called
  std::int64_t position = 0;    ///< of the timeline at that moment
  std::int64_t late = 0;        ///< how much later than that moment the start has reached this system; 0 when in time
  bool isJoining = false;       ///< the others play already, and are at `position` at that moment
};

/// What became of a start.
struct Trel_StartOutcome {
  enum class Missing : std::uint8_t {
    notReported, ///< whether it began is not known
    failed,      ///< it has told that it does not begin
    notPrimed,   ///< it was not ready when the start was agreed on
    lost,        ///< its connection is gone
  };

  std::int64_t runningTime = 0;
  std::map<std::uint32_t, std::int64_t> late{}; ///< actual start minus agreed, of each system that has begun
  std::map<std::uint32_t, Missing> missing{};
  /// Between the first and the last actual start.
  std::int64_t spread = 0;
};

/// Why a system of the link is not ready for a start.
enum class Trel_LinkUnready : std::uint8_t { notPrimed, clockNotLocked, delayTooLong };

/// Why something that the host wants is not done.
enum class Trel_LinkRefusal : std::uint8_t {
  none,           ///< it is done
  notLinked,      ///< a satellite without a link
  notInControl,   ///< another system is
  clockNotLocked, ///< of this system, to the master's
  notPrimed,      ///< this system
  othersNotReady, ///< and the start was not to go ahead without them
  inThePast,      ///< a start
  tooFarAhead,    ///< a start
  noDialog,       ///< is on any screen
  unknownSystem,  ///< no linked system has the address
  notMaster,      ///< only the master can
};

/// A start, as the host of the system in control wants it.
struct Trel_StartRequest {
  enum class When : std::uint8_t { at, in, asSoonAsPossible };
  /// Starts further ahead are refused, microseconds.
  static constexpr std::int64_t kFarthest = std::int64_t{24} * 3600 * 1'000'000;

  When when = When::asSoonAsPossible;
  std::int64_t time = 0;       ///< `at`: a running time; `in`: from now
  bool withoutUnready = false; ///< it goes ahead without those who are not ready
};
/// ... and what the session says to it.
struct Trel_StartAnswer {
  Trel_LinkRefusal refusal = Trel_LinkRefusal::none;
  std::int64_t runningTime = 0; ///< of the start
  /// Those who are not ready, as far as this system knows: a master all, a satellite those that it is connected to.
  std::map<std::uint32_t, Trel_LinkUnready> unready{};
};
