#pragma once

#include "link/session/Trel_SharedState.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>

/// The host of a system in a simulated link: what it is doing, and what its session may ask of it and has to tell it. A
/// breach throws std::logic_error.
struct SimulatedHost {
  using Time = Trel_SessionTime;
  using Event = Trel_LinkEvent;

  /// Microseconds, and percent of the times.
  struct Behaviour {
    Time largestPreparation = 100'000; ///< for a prime
    Time longestPreparation = 100'000; ///< ... in one of 20 cases
    std::uint32_t percentReady = 100;  ///< when it was primed
    std::uint32_t percentDeclined = 0; ///< of starts
    std::uint32_t percentSilent = 0;   ///< of starts it has said to make, and does not tell about
    Time mostLate = 100'000;           ///< it makes no start that comes later
    bool answersDelay = true;          ///< when it is asked
    Time largestThought = 300'000;     ///< when it is asked to let go
    std::uint32_t percentAgreed = 80;  ///< ... then
  };

  bool isBusy = false;
  bool isPrimed = false;
  bool hasSomething = false;     ///< to stop
  std::uint64_t generation = 0;  ///< what was agreed on before counts no more
  std::uint64_t starts = 0;      ///< that it was told of
  std::optional<Time> pending{}; ///< a start that it was told of and whose end it was not
  std::deque<Time> ended{};      ///< starts, the last ones

  void Prime() {
    Ask();
    isPrimed = false;
    hasSomething = true;
  }
  void Start() {
    Ask();
    Check(isPrimed, "is to start, and is not primed");
  }
  void Stop() {
    Ask();
    Check(hasSomething, "is to stop, and has nothing to");
    isPrimed = false;
    hasSomething = false;
  }
  void Begin() { isPrimed = false; }
  void Take(const Event& event) {
    const Time start = event.start.runningTime;
    const bool hasBegun = event.kind == Event::Kind::started;
    if (event.kind == Event::Kind::start) {
      Check(!pending, "is told of a start before the end of another");
      pending = start;
      ++starts;
    } else if (hasBegun || event.kind == Event::Kind::startFailed) {
      Check(pending ? *pending == start : !hasBegun, "is told of the end of another start");
      Check(hasBegun || event.reason != Event::Reason::none, "is not told why it does not start");
      pending.reset();
      ended.push_back(start);
      if (ended.size() > 16) {
        ended.pop_front();
      }
    }
  }

  /// Changes one of the things that systems tell each other; `below` chooses a number below a bound.
  template <class Below>
  static void Change(Trel_SharedState& state, std::uint32_t address, Below below) {
    const bool isOn = below(2) == 0;
    const std::function<void()> changes[] = {
        [&] { state.SetSoloed(isOn); },
        [&] { state.SetRecording(isOn); },
        [&] { state.SetOnline(isOn); },
        [&] { state.SetTakingPart(isOn); },
        [&] { state.SetVideoReference(static_cast<ETrel_VideoReferenceFormat>(below(8))); },
        [&] { state.SetDialog(std::string(below(3), '?')); },
        [&] { state.SetLoopPlay(isOn); },
        [&] { state.SetSelection({.in = below(100), .out = 100}); },
        [&] { state.EnableGroup(static_cast<ETrel_Group>(below(6)), isOn); },
        [&] { state.SoloAll(isOn); },
        [&] { state.RequestOnline(isOn, address); },
        [&] { state.RequestTakingPart(isOn, address); },
        [&] { state.PressButton(isOn); },
    };
    changes[below(static_cast<std::uint32_t>(std::size(changes)))]();
  }

private:
  void Ask() {
    Check(!isBusy, "is asked for two things at once");
    isBusy = true;
    ++generation;
  }
  static void Check(bool condition, const char* failure) {
    if (!condition) {
      throw std::logic_error(failure);
    }
  }
};
