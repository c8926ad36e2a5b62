#include "link/session/Trel_ControlArbiter.h"
#include "link/session/Trel_ControlState.h"

#include <algorithm>
#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iostream>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr std::size_t kMaster = 0; // system n has the address n + 1
constexpr std::size_t kSystems = 3;

constexpr std::uint32_t AddressOf(std::size_t system) { return static_cast<std::uint32_t>(system) + 1; }

struct Message {
  enum class Kind : std::uint8_t { request, granted, busy, letGo, hasLetGo, keeps, announce, acknowledge };
  Kind kind;
  std::uint32_t serial = 0; ///< of a synchronous command of the master's, and of its reply
  std::uint32_t holder = 0;
  auto operator<=>(const Message&) const = default;
};
using Kind = Message::Kind;

/// A master and its satellites with the messages that are on their way, and how often what may happen still may.
struct World {
  struct Satellite {
    std::vector<Message> toMaster;
    std::vector<Message> fromMaster;
    std::optional<Trel_ControlState::Ticket> hostIsAsked;
    std::uint32_t askedBy = 0; ///< serial number
    bool awaitsReply = false;
    bool masterKnowsIt = true; ///< linked, as the master sees it
    bool knowsMaster = true;   ///< ... as it sees itself
    std::int32_t requests = 0;
    auto operator<=>(const Satellite&) const = default;
  };

  Trel_ControlArbiter arbiter{AddressOf(kMaster)};
  std::array<Trel_ControlState, kSystems> states;
  std::array<Satellite, kSystems> satellites; // the master's own is not used but for its requests
  std::optional<std::size_t> asker;           // while a satellite is asked to let go
  std::vector<std::size_t> toAnnounceTo;
  std::optional<std::size_t> acknowledges; // the announcement waits for it
  std::uint32_t letGoSerial = 0;
  std::uint32_t announceSerial = 0;
  bool isAnnouncing = false;
  std::int32_t timeOuts = 0;
  std::int32_t losses = 0;
  auto operator<=>(const World&) const = default;

  std::size_t Controllers() const {
    return static_cast<std::size_t>(
        std::count_if(states.begin(), states.end(), [](const auto& state) { return state.HasControl(); }));
  }

  void MasterAnswers(bool isGranted) {
    if (asker != kMaster && satellites[*asker].masterKnowsIt) {
      satellites[*asker].fromMaster.push_back({isGranted ? Kind::granted : Kind::busy});
    } else if (asker == kMaster && !isGranted) {
      states[kMaster].EndRequest();
    }
    asker.reset();
  }
  void HolderAnswers(Trel_ControlArbiter::Answer answer) { MasterAnswers(arbiter.HolderAnswered(answer)); }
  void MasterGetsRequest(std::size_t from, bool hostAgrees) {
    const auto verdict = arbiter.Request(AddressOf(from));
    if (verdict == Trel_ControlArbiter::Verdict::busy) {
      // Another request may be in hand.
      const auto inHand = std::exchange(asker, from);
      MasterAnswers(false);
      asker = inHand;
      return;
    }
    asker = from;
    if (verdict == Trel_ControlArbiter::Verdict::granted) {
      MasterAnswers(true);
    } else if (arbiter.GetHolder() == AddressOf(kMaster)) {
      const auto ticket = states[kMaster].AskToLetGo();
      const bool letsGo = ticket && hostAgrees && states[kMaster].LetGo(*ticket);
      HolderAnswers(letsGo ? Trel_ControlArbiter::Answer::agreed : Trel_ControlArbiter::Answer::refused);
    } else if (Satellite& holder = satellites[arbiter.GetHolder() - 1]; holder.masterKnowsIt) {
      holder.fromMaster.push_back({Kind::letGo, ++letGoSerial});
    } else {
      HolderAnswers(Trel_ControlArbiter::Answer::none);
    }
  }
  void MasterReceives(std::size_t from, const Message& message, bool hostAgrees) {
    const bool isExpected = asker && arbiter.GetHolder() == AddressOf(from) && message.serial == letGoSerial;
    if (message.kind == Kind::request) {
      MasterGetsRequest(from, hostAgrees);
    } else if (message.kind == Kind::acknowledge && acknowledges == from && message.serial == announceSerial) {
      acknowledges.reset();
    } else if (message.kind == Kind::hasLetGo && isExpected) {
      HolderAnswers(Trel_ControlArbiter::Answer::agreed);
    } else if (message.kind == Kind::keeps && isExpected) {
      HolderAnswers(Trel_ControlArbiter::Answer::refused);
    }
  }
  void SatelliteReceives(std::size_t system, const Message& message) {
    Satellite& satellite = satellites[system];
    if (message.kind == Kind::announce) {
      states[system].Announce(message.holder, message.holder == AddressOf(system));
      satellite.toMaster.push_back({Kind::acknowledge, message.serial});
    } else if (message.kind == Kind::letGo) {
      satellite.hostIsAsked = states[system].AskToLetGo();
      satellite.askedBy = message.serial;
      if (!satellite.hostIsAsked) {
        satellite.toMaster.push_back({Kind::keeps, message.serial});
      }
    } else {
      satellite.awaitsReply = false;
      if (message.kind == Kind::busy) {
        states[system].EndRequest();
      }
    }
  }
  void HostAnswers(std::size_t system, bool agrees) {
    const auto ticket = std::exchange(satellites[system].hostIsAsked, std::nullopt);
    const bool letsGo = agrees && states[system].LetGo(*ticket);
    satellites[system].toMaster.push_back({letsGo ? Kind::hasLetGo : Kind::keeps, satellites[system].askedBy});
  }
  /// The next step of the announcement: everybody who is linked, the new holder last.
  void Announce() {
    if (!isAnnouncing) {
      isAnnouncing = true;
      arbiter.BeginAnnouncement();
      for (std::size_t system = 0; system < kSystems; ++system) {
        if (AddressOf(system) != arbiter.GetHolder()) {
          toAnnounceTo.push_back(system);
        }
      }
      toAnnounceTo.push_back(arbiter.GetHolder() - 1);
    } else if (toAnnounceTo.empty()) {
      isAnnouncing = false;
      arbiter.Announced();
    } else {
      const std::size_t system = toAnnounceTo.front();
      toAnnounceTo.erase(toAnnounceTo.begin());
      const std::uint32_t holder = toAnnounceTo.empty() ? AddressOf(system) : AddressOf(toAnnounceTo.back());
      if (system == kMaster) {
        states[kMaster].Announce(holder, holder == AddressOf(kMaster));
      } else if (satellites[system].masterKnowsIt) {
        satellites[system].fromMaster.push_back({Kind::announce, ++announceSerial, holder});
        acknowledges = system;
      }
    }
  }
  void MasterLoses(std::size_t system) {
    satellites[system].masterKnowsIt = false;
    satellites[system].toMaster.clear();
    if (acknowledges == system) {
      acknowledges.reset();
    }
    const bool wasAsked = asker && asker != system && arbiter.GetHolder() == AddressOf(system);
    arbiter.SystemGone(AddressOf(system), true);
    if (wasAsked) {
      HolderAnswers(Trel_ControlArbiter::Answer::none);
    }
  }
  void SatelliteLoses(std::size_t system) {
    Satellite& satellite = satellites[system];
    satellite.knowsMaster = false;
    satellite.fromMaster.clear();
    satellite.awaitsReply = false;
    satellite.hostIsAsked.reset();
    states[system].LoseLink();
    states[system].EndRequest();
  }
  void Comes(std::size_t system) {
    Satellite& satellite = satellites[system];
    satellite.toMaster.clear(); // of the connection that was
    satellite.fromMaster.clear();
    arbiter.SystemGone(AddressOf(system), false);
    satellite.masterKnowsIt = true;
    satellite.knowsMaster = true;
    if (arbiter.GetHolder() != 0 && arbiter.GetHolder() != AddressOf(system)) {
      satellite.fromMaster.push_back({Kind::announce, 0, arbiter.GetHolder()});
    }
  }

  /// All worlds that may follow.
  std::vector<World> Next() const {
    std::vector<World> worlds;
    const auto add = [&](const std::function<void(World&)>& change) { change(worlds.emplace_back(*this)); };
    for (std::size_t system = 0; system < kSystems; ++system) {
      const Satellite& satellite = satellites[system];
      if (satellite.requests > 0 && satellite.knowsMaster && !states[system].HasControl()) {
        add([=](World& world) {
          --world.satellites[system].requests;
          if (!world.states[system].BeginRequest()) {
            return;
          }
          if (system == kMaster) {
            world.MasterGetsRequest(kMaster, true);
          } else {
            world.satellites[system].awaitsReply = true;
            world.satellites[system].toMaster.push_back({Kind::request});
          }
        });
      }
      // Whoever asked and got control, or waited long enough, asks no more.
      World asked = *this;
      asked.states[system].EndRequest();
      if (asked != *this && !satellite.awaitsReply && asker != system &&
          (states[system].HasControl() || (!arbiter.MustAnnounce() && !isAnnouncing && satellite.fromMaster.empty()))) {
        worlds.push_back(asked);
      }
      for (const bool agrees : {false, true}) {
        if (satellite.hostIsAsked) {
          add([=](World& world) { world.HostAnswers(system, agrees); });
        }
        if (!satellite.toMaster.empty() && satellite.masterKnowsIt) {
          add([=](World& world) {
            auto& queue = world.satellites[system].toMaster;
            const Message message = queue.front();
            queue.erase(queue.begin());
            world.MasterReceives(system, message, agrees);
          });
        }
      }
      if (!satellite.fromMaster.empty() && satellite.knowsMaster) {
        add([=](World& world) {
          auto& queue = world.satellites[system].fromMaster;
          const Message message = queue.front();
          queue.erase(queue.begin());
          world.SatelliteReceives(system, message);
        });
      }
      const bool isHalfLost = satellite.masterKnowsIt != satellite.knowsMaster;
      if (system != kMaster && satellite.masterKnowsIt && (losses > 0 || isHalfLost)) {
        add([=](World& world) {
          world.losses -= isHalfLost ? 0 : 1;
          world.MasterLoses(system);
        });
      }
      if (system != kMaster && satellite.knowsMaster && (losses > 0 || isHalfLost)) {
        add([=](World& world) {
          world.losses -= isHalfLost ? 0 : 1;
          world.SatelliteLoses(system);
        });
      }
      if (system != kMaster && !satellite.masterKnowsIt && !satellite.knowsMaster && !isAnnouncing) {
        add([=](World& world) { world.Comes(system); });
      }
    }
    if ((arbiter.MustAnnounce() || isAnnouncing) && !acknowledges) {
      add([](World& world) { world.Announce(); });
    }
    if (timeOuts > 0 && acknowledges) {
      add([](World& world) {
        --world.timeOuts;
        world.acknowledges.reset();
      });
    }
    if (timeOuts > 0 && asker && arbiter.GetHolder() != AddressOf(kMaster)) {
      add([](World& world) {
        --world.timeOuts;
        world.HolderAnswers(Trel_ControlArbiter::Answer::none);
      });
    }
    // The wait is long enough for whoever is lost to notice.
    const bool haveNoticed = std::all_of(satellites.begin(), satellites.end(),
                                         [](const auto& one) { return one.masterKnowsIt || !one.knowsMaster; });
    if (arbiter.MustWait() && haveNoticed) {
      add([](World& world) { world.arbiter.WaitOver(); });
    }
    return worlds;
  }
};

struct Budget {
  std::size_t requests; ///< of as many systems, the satellites first
  std::int32_t timeOuts;
  std::int32_t losses;
};
class ControlInterleavings : public testing::TestWithParam<Budget> {};

TEST_P(ControlInterleavings, NeverTwoInControlAndInTheEndOneThatAllAgreeOn) {
  World first;
  for (std::size_t count = 1; count <= GetParam().requests; ++count) {
    first.satellites[count % kSystems].requests = 1;
  }
  first.timeOuts = GetParam().timeOuts;
  first.losses = GetParam().losses;
  std::set<World> seen{first};
  std::vector<World> open{first};
  std::set<std::uint32_t> finalHolders;
  while (!open.empty()) {
    const World world = open.back();
    open.pop_back();
    ASSERT_LE(world.Controllers(), 1U);
    const std::vector<World> next = world.Next();
    if (next.empty()) {
      ASSERT_EQ(world.Controllers(), 1U);
      const std::uint32_t holder = world.arbiter.GetHolder();
      finalHolders.insert(holder);
      ASSERT_TRUE(world.states[holder - 1].HasControl());
      for (const Trel_ControlState& state : world.states) {
        ASSERT_EQ(state.GetHolder(), holder);
      }
    }
    for (const World& one : next) {
      if (seen.insert(one).second) {
        open.push_back(one);
      }
    }
  }
  std::cout << seen.size() << " states\n";
  EXPECT_EQ(finalHolders.size(), 1 + std::min(GetParam().requests, kSystems - 1));
}

INSTANTIATE_TEST_SUITE_P(Faults, ControlInterleavings,
                         testing::Values(Budget{3, 0, 0}, Budget{3, 1, 0}, Budget{2, 0, 1}, Budget{2, 2, 0},
                                         Budget{1, 1, 1}));

} // namespace
