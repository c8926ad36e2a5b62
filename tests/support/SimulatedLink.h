#pragma once

#include "link/host/Trel_LinkTexts.h"
#include "link/host/Trel_SessionCommands.h"
#include "link/session/Trel_SessionCore.h"
#include "tests/support/SimulatedHost.h"
#include "tests/support/SimulatedNetwork.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <utility>
#include <variant>
#include <vector>

/// Session cores, each on an endpoint in the simulated network, with a host above it and with a shell that carries out
/// what it wants, up to a delay later: connects and searches one at a time, what concerns one peer in order, everything
/// else in any order. Every life of a master has a running time of its own; the clock of a satellite is locked to it
/// some time after they were linked.
///
/// What no link may ever do throws std::logic_error: two systems in control of one link, events of a system or what its
/// host is asked out of order, a start that nobody hears the end of or that is made by the clock of a master that is
/// gone, an answer that nobody waits for or that comes too late, a core that does much because of little, that grows,
/// that does not get on, or that has been stopped and goes on all the same.
class SimulatedLink {
public:
  using Core = Trel_SessionCore;
  using Time = Core::Time;
  using Message = Core::Message;
  using Action = Core::Action;
  using Event = Core::Event;
  using Kind = Event::Kind;
  using Answer = Core::Answer;

  static constexpr Time kMillisecond = 1'000;
  static constexpr Time kSecond = 1'000'000;
  static constexpr Time kReplyTime = 2 * kSecond;
  static constexpr Time kLongestAnswer = 10 * kSecond;
  static constexpr Time kLongestStartAnswer = 510 * kMillisecond;
  /// In which a system that was frozen notices what has happened.
  static constexpr Time kWakingTime = 200 * kMillisecond;
  /// After a start everybody has told by then, and the word has got around.
  static constexpr Time kReportTime = 2'500 * kMillisecond;

  using Job = std::function<void()>;
  struct Lane {
    std::deque<Job> jobs{};
    bool isBusy = false;
  };
  struct Call {
    Core::Request request = 0;
    std::uint32_t address = 0;
  };
  struct Asked {
    Time since = 0;
    std::uint32_t peer = 0; ///< 0: the host
    TCPE_Endpoint::Id connection = 0;
    std::uint32_t serial = 0;
    bool isStart = false;
  };
  /// A start that a master follows.
  struct Round {
    std::map<std::uint32_t, int> expected{}; ///< who makes it, by address; 0 is its own, -1 does not after all
    bool isOver = false;                     ///< told, or given up
  };
  enum class Stage : std::uint8_t { none, connected, linked };

  /// What ends with the program of a system.
  struct Process {
    std::unique_ptr<Core> core{}; ///< none while it does not run
    SimulatedHost host{};
    // The shell.
    Time tickAt = Core::kNever;
    std::uint32_t connecting = 0;
    std::map<std::uint64_t, Lane> lanes{};
    std::map<std::uint32_t, Call> calls{}; ///< by serial number
    std::map<Core::Token, Asked> asked{};
    std::vector<std::function<void()>> held{}; ///< while it is frozen
    // What its host knows from events.
    std::map<std::uint32_t, Stage> stages{};
    std::map<Time, Round> rounds{}; ///< by running time
    // Clocks.
    std::uint64_t clock = 0; ///< the instance that its clock is locked to; 0: none
  };
  struct System : Process {
    Core::Config config{};
    Core::Surroundings around{};
    bool isChanged = false; ///< its surroundings
    Time largestDelay = 0;  ///< of handlers and actions
    SimulatedHost::Behaviour behaviour{};
    Time leastCorrelation = 300 * kMillisecond;
    std::map<Answer, int> answers{};        ///< to its host
    std::vector<Trel_StartAnswer> starts{}; ///< answers to its host, since it was started
    std::vector<Event> told{};              ///< since it was started
    std::uint64_t life = 0;
    std::uint32_t lastSerial = 0;
    Time disturbed = 0; ///< last
    std::uint32_t master = 0;
    std::uint64_t link = 0;              ///< another one each time that a master begins
    std::uint64_t instance = 0;          ///< of the engine of its master
    std::uint64_t connectedInstance = 0; ///< ... as it is known before
    std::uint64_t correlations = 0;      ///< begun and given up
  };

  SimulatedLink(bool isCurrentNumbering, std::uint32_t seed) : network(seed), mIsCurrent(isCurrentNumbering) {
    network.program = [this](int system, const SimulatedNetwork::Event& event) { OnEngine(system, event); };
  }

  SimulatedNetwork network;
  std::ostream* log = nullptr;

  static std::uint32_t AddressOf(int system) { return 0x0a000001 + 256 * static_cast<std::uint32_t>(system); }
  int Add(Core::Config config) {
    const int number = static_cast<int>(mSystems.size());
    System& system = mSystems.emplace_back();
    system.config = config;
    system.config.isCurrentNumbering = mIsCurrent;
    system.around.self = {.address = AddressOf(number),
                          .port = 1,
                          .uniqueID = 100 + number,
                          .type = config.isMaster ? eTCPE_SystemType_Master : eTCPE_SystemType_Satellite,
                          .name = "S" + std::to_string(number)};
    system.around.allowsSatellites = config.isMaster;
    system.around.maxSatellites = 128;
    TCPE_Endpoint::Config engine = SimulatedNetwork::Config(system.around.self.address);
    engine.makeNonce = [this] {
      TCPE_Hello::Nonce nonce{};
      std::generate(nonce.begin(), nonce.end(), [this] { return static_cast<std::byte>(network.Random(256)); });
      return nonce;
    };
    engine.makeConnectFrame = [this, number](std::uint32_t) {
      mMessages.emplace_back(Message::ConnectTo{At(number).around.self});
      return SimulatedNetwork::ConnectFrame(Index(mMessages.size() - 1));
    };
    network.Add(std::move(engine));
    network.Kill(number, true);
    return number;
  }
  System& At(int system) { return mSystems.at(static_cast<std::size_t>(system)); }
  int Count() const { return static_cast<int>(mSystems.size()); }
  Time Now() const { return network.Now(); }
  /// By the clock of a system.
  Time Now(int number) { return network.Now(number); }
  Time Random(Time bound) { return bound == 0 ? 0 : network.Random(static_cast<std::uint32_t>(bound)); }

  // --- what happens to a system

  void Start(int number) {
    System& system = At(number);
    if (!system.core) {
      network.Start(number);
      system.config.seed = network.Random(1U << 31U);
      system.core = Core::Make(system.config);
      system.isChanged = true;
      system.disturbed = Now();
      system.told.clear();
      system.starts.clear();
      mZeros[InstanceOf(number)] = Now() - Random(kSecond);
      system.clock = system.config.isMaster ? InstanceOf(number) : 0;
      Log(number, "starts");
    }
    Begin(number);
  }
  void Kill(int number, bool isOff) {
    System& system = At(number);
    Log(number, isOff ? "loses its power" : "is killed");
    Freeze(number, false);
    network.Kill(number, isOff);
    static_cast<Process&>(system) = {};
    ++system.life;
    ++system.correlations;
    system.disturbed = Now();
  }
  /// When its machine was asleep, its clock stood still, and a satellite has to find that of its master anew.
  void Freeze(int number, bool isFrozen, bool isAsleep = false) {
    System& system = At(number);
    if (network.At(number).isFrozen == isFrozen) {
      return;
    }
    Log(number, isFrozen ? "is frozen" : isAsleep ? "wakes up" : "thaws");
    network.Freeze(number, isFrozen, isAsleep);
    if (isFrozen) {
      return;
    }
    system.disturbed = Now();
    for (auto& [token, asked] : system.asked) {
      asked.since += Now() - network.At(number).frozenSince;
    }
    if (isAsleep && system.clock == InstanceOf(number)) {
      mZeros.at(system.clock) += Now() - network.At(number).frozenSince;
      std::for_each(mSystems.begin(), mSystems.end(), [](System& each) { each.isChanged = true; });
    } else if (isAsleep) {
      LoseClock(number);
    }
    for (auto& held : std::exchange(system.held, {})) {
      network.After(0, std::move(held));
    }
    network.After(kWakingTime, [this, number] { CheckControl(number); });
  }
  void CutOff(int number, bool isCutOff) {
    Log(number, isCutOff ? "is cut off" : "has a cable again");
    network.CutOff(number, isCutOff);
    At(number).disturbed = Now();
  }
  void Move(int number, std::uint32_t address) {
    Log(number, "moves to ", Name(address));
    network.Move(number, address);
    At(number).disturbed = Now();
    At(number).around.self.address = address;
    At(number).isChanged = true;
    InputLater(number, Random(kSecond), [](Core&) {});
  }
  void SetAround(int number, const std::function<void(Core::Surroundings&)>& change) {
    change(At(number).around);
    At(number).isChanged = true;
    Input(number, [](Core&) {});
  }

  // --- what its host wants

  void Begin(int number) {
    if (At(number).core && !At(number).core->IsRunning() && At(number).host.isBusy) {
      Later(number, kMillisecond, [=, this] { Begin(number); }); // the end waits for it
      return;
    }
    if (At(number).config.isMaster && At(number).core && !At(number).core->IsRunning()) {
      At(number).link = ++mLastLink;
    }
    Input(number, [=, this](Core& core) {
      core.Begin(Now(number));
      core.Resume(Now(number));
    });
  }
  void End(int number) {
    Log(number, "ends");
    Input(number, [=, this](Core& core) { core.End(Now(number)); });
    if (!network.At(number).isFrozen) {
      At(number).stages.clear();
      At(number).rounds.clear();
      At(number).disturbed = Now();
    }
  }
  void Ask(int number) {
    if (!At(number).core || network.At(number).isFrozen) {
      return;
    }
    At(number).asked[++mLastToken] = {.since = Now()};
    Input(number, [=, this](Core& core) { core.RequestControl(mLastToken, Now(number)); });
  }
  void Unlink(int number, std::uint32_t address) {
    Log(number, "unlinks ", Name(address));
    At(number).disturbed = Now();
    Input(number, [=, this](Core& core) { core.DisconnectSystem(address, Now(number)); });
  }
  Trel_LinkRefusal Prime(int number, const Trel_PlayRange& range = {}) {
    return Conduct(number, [&, this](Core& core) { return core.Prime(range, Now(number)); });
  }
  Trel_LinkRefusal Stop(int number) {
    return Conduct(number, [=, this](Core& core) { return core.Stop(Now(number)); });
  }
  void StartPlayback(int number, const Trel_StartRequest& start = {}) {
    if (!At(number).core || network.At(number).isFrozen) {
      return;
    }
    At(number).asked[++mLastToken] = {.since = Now(), .isStart = true};
    Log(number, "wants to start ", static_cast<int>(start.when), ' ', start.time);
    Input(number, [&, this](Core& core) { core.Start(start, mLastToken, Now(number)); });
  }
  /// It has to be found anew.
  void LoseClock(int number) {
    System& system = At(number);
    if (system.core && !system.config.isMaster && system.clock != 0) {
      Log(number, "loses its clock");
      SetClock(number, 0);
      Correlate(number);
    }
  }
  void Rename(int number, const std::string& name) {
    At(number).around.self.name = name;
    At(number).isChanged = true;
    Input(number, [=, this](Core& core) { core.Renamed(Now(number)); });
  }
  /// Whatever else is to go into a core.
  template <class Call>
  void Input(int number, Call call) {
    System& system = At(number);
    if (!system.core || network.At(number).isFrozen) {
      return;
    }
    Core& core = *system.core;
    const bool wasRunning = core.IsRunning();
    const bool hadControl = core.Control().HasControl();
    if (std::exchange(system.isChanged, false)) {
      system.around.runningTime = RunningTime(number);
      core.Notice(system.around, Now(number));
    }
    call(core);
    const std::vector<Action::Any> actions = core.TakeActions();
    Check(actions.size() <= 16 + 6 * mSystems.size(), number, "it does much because of little");
    for (const Action::Any& action : actions) {
      const bool isLast =
          std::holds_alternative<Action::Disconnect>(action) || std::holds_alternative<Action::Answer>(action) ||
          std::holds_alternative<Action::AnswerStart>(action) || std::holds_alternative<Action::HostStop>(action);
      Check(wasRunning || core.IsRunning() || isLast, number, "it is stopped, and does something");
      std::visit([&](const auto& each) { CarryOut(number, each); }, action);
    }
    Check(core.State().Others().size() <= mSystems.size() + kStrangers, number, "it knows too many systems");
    Check(core.Conductor().GetLastStart().size() <= mSystems.size() + kStrangers, number, "too many have started");
    if (core.Control().HasControl() != hadControl) {
      Log(number, hadControl ? "has lost control" : "HAS CONTROL");
      CheckControl(number);
    }
    Arm(number);
  }

  void Run(Time duration) { network.Run(duration); }
  /// Until the links are as they have to be and stay so, and nobody waits; how long that took, or nothing.
  std::optional<Time> RunUntilAgreed(Time atMost) {
    const Time begin = Now();
    for (Time agreed = begin; agreed - begin <= atMost; Run(50 * kMillisecond)) {
      if (!Disagreement().empty()) {
        agreed = Now();
      } else if (Now() - agreed >= kSecond) {
        return agreed - begin;
      }
    }
    return std::nullopt;
  }

  /// What is not yet, or not any more, as it has to be among the systems that run; empty when nothing is.
  std::string Disagreement() {
    std::map<std::uint32_t, std::vector<int>> links;
    for (int number = 0; number < Count(); ++number) {
      const System& system = At(number);
      if (!system.asked.empty()) {
        return "S" + std::to_string(number) + " has not answered";
      }
      if (!system.core || !system.core->IsRunning()) {
        continue;
      }
      if (!system.config.isMaster && !system.core->IsLinked()) {
        return "S" + std::to_string(number) + " is not linked";
      }
      links[system.config.isMaster ? system.around.self.address : system.master].push_back(number);
    }
    for (const auto& [address, members] : links) {
      const int number = network.Find(address);
      if (number < 0 || !At(number).core) {
        return "a master that does not run";
      }
      if (const std::string fault = Disagreement(number, members); !fault.empty()) {
        return "link of " + Name(address) + ": " + fault;
      }
    }
    return {};
  }
  /// By the clock of a system.
  std::optional<Time> RunningTime(int number) {
    const std::uint64_t clock = At(number).clock;
    return clock != 0 ? std::optional(Now() - mZeros.at(clock)) : std::nullopt;
  }
  /// Those that are linked with a master, and it.
  std::vector<int> MembersOf(int master) {
    std::vector<int> members;
    for (int number = 0; number < Count(); ++number) {
      if (At(number).core &&
          (number == master || At(number).core->GetLinkedAddresses().contains(At(master).around.self.address))) {
        members.push_back(number);
      }
    }
    return members;
  }

  /// The last event of a kind that a system has told; another kind when there is none.
  Event Last(int number, Kind kind) {
    const auto& told = At(number).told;
    const auto found =
        std::find_if(told.rbegin(), told.rend(), [kind](const Event& event) { return event.kind == kind; });
    return found != told.rend() ? *found : Event{.kind = Kind::searching};
  }

private:
  static constexpr std::int32_t kMessage = 100;
  static constexpr std::uint64_t kConnector = 1; ///< lane; those of a peer have its address, and this bit for its words
  static constexpr std::uint64_t kFromPeer = std::uint64_t{1} << 32U;
  static constexpr std::uint64_t kNoLife = ~std::uint64_t{0};
  static constexpr std::size_t kStrangers = 8; ///< addresses that systems had before

  static std::string Index(std::size_t index) {
    const auto number = static_cast<std::uint32_t>(index);
    return {reinterpret_cast<const char*>(&number), sizeof number};
  }
  static std::size_t Index(std::span<const std::byte> payload) {
    std::uint32_t number = 0;
    std::copy_n(payload.begin(), std::min(sizeof number, payload.size()), reinterpret_cast<std::byte*>(&number));
    return number;
  }
  static std::string Name(std::uint32_t address) {
    const std::uint32_t offset = address - AddressOf(0);
    return address == 0 ? "nobody" : "S" + std::to_string(offset / 256) + (offset % 256 == 0 ? "" : "'");
  }
  /// Names are looked up only for a log that there is.
  template <class Part>
  static decltype(auto) Shown(const Part& part) {
    if constexpr (requires { NameOf(part); }) {
      return NameOf(part);
    } else {
      return (part);
    }
  }
  template <class... Parts>
  void Log(int number, const Parts&... parts) {
    if (log != nullptr) {
      *log << static_cast<double>(Now() - 1'000'000'000) / 1e6 << " S" << number << ' ';
      ((*log << Shown(parts)), ...) << '\n';
    }
  }
  void Check(bool condition, int number, const std::string& failure) {
    if (!condition) {
      throw std::logic_error("S" + std::to_string(number) + ": " + failure);
    }
  }

  // --- control and lists

  bool BelievesInControl(int number) {
    const System& system = At(number);
    const auto& [thawed, slept] = std::pair(network.At(number).thawed, network.At(number).slept);
    const Time waking = kWakingTime + (slept != 0 ? TCPE_Limits().silence : 0); // a clock that stood still
    const bool mayNotKnow = network.At(number).isFrozen || Now() - thawed < waking;
    return system.core && system.core->Control().HasControl() && !mayNotKnow;
  }
  void CheckControl(int number) {
    for (int other = 0; BelievesInControl(number) && other < Count(); ++other) {
      Check(other == number || !BelievesInControl(other) || At(other).link != At(number).link, number,
            "in control together with S" + std::to_string(other));
    }
  }
  std::string Disagreement(int master, const std::vector<int>& members) {
    const std::vector<Core::System> list = At(master).core->GetSystems();
    const std::uint32_t holder = At(master).core->Control().GetHolder();
    std::set<std::uint32_t> addresses;
    int holders = 0;
    for (const int number : members) {
      addresses.insert(At(number).around.self.address);
      holders += At(number).core->Control().HasControl() ? 1 : 0;
    }
    if (list.size() != members.size() || holders != 1 || !addresses.contains(holder)) {
      return std::to_string(list.size()) + " listed of " + std::to_string(members.size()) + ", " +
             std::to_string(holders) + " in control";
    }
    for (const int number : members) {
      const Core& core = *At(number).core;
      std::vector<Core::System> own = core.GetSystems();
      std::set<std::uint32_t> others = addresses;
      others.erase(At(number).around.self.address);
      const bool knowsAll = number == master || At(master).config.wantsMesh;
      if (core.GetLinkedAddresses() != (knowsAll ? others : std::set{At(master).around.self.address})) {
        return "S" + std::to_string(number) + " is not connected to all";
      }
      const bool isSameList = own.size() == list.size() &&
                              std::equal(own.begin(), own.end(), list.begin(), [](const auto& a, const auto& b) {
                                return a.address == b.address && a.place == b.place && a.name == b.name;
                              });
      if (!isSameList || core.Control().GetHolder() != holder) {
        return "S" + std::to_string(number) + " knows another list or holder";
      }
      if (const std::string fault = Misunderstanding(number, master); !fault.empty()) {
        return "S" + std::to_string(number) + ' ' + fault;
      }
    }
    return {};
  }

  /// What a system has not heard of those that it is linked with.
  std::string Misunderstanding(int number, int master) {
    const Core& core = *At(number).core;
    const std::set<std::uint32_t> linked = core.GetLinkedAddresses();
    if (!core.State().Own().isClockLocked) {
      return "has no clock";
    }
    if (core.State().Shared() != At(master).core->State().Shared()) {
      return "has other settings";
    }
    for (const auto& [address, known] : core.State().Others()) {
      const int other = network.Find(address);
      if (!linked.contains(address) || other < 0 || !At(other).core) {
        return "knows " + Name(address);
      }
      Trel_SystemState expected = At(other).core->State().Own();
      if (other == master) {
        for (const auto& [third, state] : At(other).core->State().Others()) {
          const bool isOther = third != At(number).around.self.address;
          expected.isSoloed = expected.isSoloed || (isOther && state.isSoloed);
          expected.isRecording = expected.isRecording || (isOther && state.isRecording);
          expected.dialog = isOther && expected.dialog.empty() ? state.dialog : expected.dialog;
        }
      }
      if (known != expected) {
        return "knows another state of " + Name(address);
      }
    }
    return core.State().Others().size() == linked.size() ? "" : "has not heard of all";
  }

  // --- clocks

  std::uint64_t InstanceOf(int number) { return network.At(number).config.local.hello.instance; }
  void SetClock(int number, std::uint64_t clock) {
    At(number).clock = clock;
    ++At(number).correlations;
    At(number).isChanged = true;
    Idle(number);
    InputLater(number, 0, [](Core&) {});
  }
  void Correlate(int number) {
    Later(number, At(number).leastCorrelation + Random(1200 * kMillisecond),
          [=, this, which = At(number).correlations, instance = At(number).instance] {
            System& system = At(number);
            if (system.correlations == which && system.instance == instance &&
                system.stages[system.master] == Stage::linked) {
              Log(number, "locks its clock");
              SetClock(number, instance);
            }
          });
  }
  /// As the idle loop of the engine does: tells all connected systems whether the clock is locked.
  void Idle(int number) {
    if (At(number).config.isMaster) {
      return;
    }
    Later(number, Random(100 * kMillisecond), [=, this] {
      mMessages.emplace_back(Message::ClockLockState{At(number).clock != 0});
      for (const auto& [address, opened] : network.At(number).open) {
        Send(number, address, mMessages.size() - 1, 0, 0);
      }
    });
  }

  // --- the host

  template <class Wish>
  Trel_LinkRefusal Conduct(int number, Wish wish) {
    Trel_LinkRefusal refusal = Trel_LinkRefusal::notLinked;
    Input(number, [&](Core& core) {
      refusal = wish(core);
      if (refusal == Trel_LinkRefusal::none) {
        EndRound(number);
      }
    });
    return refusal;
  }
  void HostIsDone(int number, Time after, bool isDone) {
    Later(number, after, [=, this] {
      At(number).host.isBusy = false;
      Input(number, [=, this](Core& core) { core.HostDone(isDone, Now(number)); });
    });
  }
  bool Percent(std::uint32_t percent) { return percent != 0 && Random(100) < percent; }
  void EndRound(int number) {
    for (auto& [start, round] : At(number).rounds) {
      round.isOver = true;
    }
  }
  /// A master begins to follow a start.
  void BeginRound(int number, Time runningTime) {
    System& system = At(number);
    if (system.rounds.contains(runningTime)) {
      return;
    }
    EndRound(number);
    auto& expected = system.rounds[runningTime].expected;
    for (const std::uint32_t address : system.core->GetLinkedAddresses()) {
      if (system.core->State().Of(address).IsTakingPart()) {
        const int other = network.Find(address);
        const bool isThere = other >= 0 && At(other).core;
        expected[address] = isThere && At(other).core->State().Own().IsTakingPart() ? other : -1;
      }
    }
    if (system.core->State().Own().IsTakingPart()) {
      expected[0] = number;
    }
    const Time due = std::max<Time>(runningTime - RunningTime(number).value_or(runningTime), 0);
    // What was cut shortly before is not noticed yet.
    CheckLater(number, due + kReportTime,
               [=, this, began = Now() - TCPE_Limits().silence] { CheckRound(number, runningTime, began); });
  }
  /// When it was not disturbed shortly before.
  void CheckLater(int number, Time delay, std::function<void()> check) {
    Later(number, delay, [=, this] {
      if (Now() - At(number).disturbed < kWakingTime) {
        CheckLater(number, kWakingTime, check);
      } else {
        check();
      }
    });
  }
  void CheckRound(int number, Time runningTime, Time began) {
    System& system = At(number);
    const auto round = system.rounds.extract(runningTime);
    if (!round) {
      return;
    }
    Check(round.mapped().isOver || !system.core->IsRunning(), number, "a round without an end");
    for (const auto& [address, other] : round.mapped().expected) {
      const bool isLinked = address == 0 || system.core->GetLinkedAddresses().contains(address);
      if (!isLinked || other < 0 || WasDisturbed(other, began) || WasDisturbed(number, began)) {
        continue;
      }
      const auto& ended = At(other).host.ended;
      const auto isOfRound = [=](Time start) { return start >= runningTime; }; // later when it has joined the others
      Check(std::any_of(ended.begin(), ended.end(), isOfRound), other, "has not heard how its start ended");
    }
  }
  bool WasDisturbed(int number, Time since) {
    return !At(number).core || At(number).disturbed >= since || network.At(number).isCutOff ||
           network.At(number).isFrozen;
  }

  // --- the shell: time and order

  template <class Action>
  void Later(int number, Time delay, Action action) {
    const Time due = Now(number) + delay;
    network.After(delay, [this, number, due, life = At(number).life, action = std::move(action)]() mutable {
      System& system = At(number);
      if (system.life != life) {
        return;
      }
      if (network.At(number).isFrozen) {
        system.held.push_back([this, number, due, life, action = std::move(action)]() mutable {
          if (At(number).life == life) {
            Later(number, std::max<Time>(due - Now(number), 0), std::move(action));
          }
        });
      } else if (due > Now(number)) { // it has slept
        Later(number, due - Now(number), std::move(action));
      } else {
        action();
      }
    });
  }
  void Queue(int number, std::uint64_t lane, Job job) {
    QueueLong(number, lane, [=, this] {
      job();
      Next(number, lane);
    });
  }
  /// Next comes later.
  void QueueLong(int number, std::uint64_t lane, Job job) {
    Lane& queue = At(number).lanes[lane];
    queue.jobs.push_back(std::move(job));
    if (!queue.isBusy) {
      Next(number, lane);
    }
  }
  void Next(int number, std::uint64_t lane) {
    Lane& queue = At(number).lanes[lane];
    queue.isBusy = !queue.jobs.empty();
    if (!queue.isBusy) {
      At(number).lanes.erase(lane);
      return;
    }
    Later(number, Random(At(number).largestDelay), std::move(queue.jobs.front()));
    queue.jobs.pop_front();
  }
  template <class Function>
  void InputLater(int number, Time delay, Function function) {
    Later(number, delay, [=, this] { Input(number, function); });
  }
  void Arm(int number) {
    System& system = At(number);
    const Time due = system.core->NextDeadline();
    if (due >= system.tickAt) {
      return;
    }
    system.tickAt = due;
    Later(number, std::max<Time>(due - Now(number), 0) + Random(std::min(system.largestDelay, kMillisecond)),
          [this, number, due] {
            if (At(number).tickAt == due) {
              At(number).tickAt = Core::kNever;
              const bool isDue = At(number).core->NextDeadline() <= Now(number);
              Input(number, [=, this](Core& core) { isDue ? core.Tick(Now(number)) : void(); });
              Check(!isDue || At(number).core->NextDeadline() > Now(number), number, "what was due stays due");
            }
          });
  }

  // --- the shell: what the engine tells

  void OnEngine(int number, const SimulatedNetwork::Event& event) {
    using Of = SimulatedNetwork::Event::Kind;
    const std::uint32_t peer = event.address;
    const std::uint64_t lane = kFromPeer | peer;
    if (event.kind != Of::frame) {
      Idle(number);
    }
    switch (event.kind) {
    case Of::opened:
      if (event.openedByPeer) {
        Queue(number, lane,
              [=, this, id = event.id, index = Index(event.payload), instance = event.session->PeerInstance()] {
                Log(number, Name(peer), " has connected");
                Core::System introduced = std::get<Message::ConnectTo>(mMessages.at(index)).system;
                introduced.address = peer;
                InputFrom(number, peer, id, [&](Core& core) { core.Connected(introduced, instance, Now(number)); });
              });
      }
      break;
    case Of::frame:
      if (event.header.Has(kTCPE_Flag_Reply)) {
        const std::size_t answer = Index(event.payload);
        EndCall(number, event.header.serial, answer == 0 ? Core::Outcome::refused : Core::Outcome::confirmed,
                static_cast<Time>(answer) - 1);
      } else {
        Queue(number, lane, [=, this, id = event.id, header = event.header, index = Index(event.payload)] {
          Take(number, peer, id, header, mMessages.at(index));
        });
      }
      break;
    case Of::disconnected:
      FailCalls(number, peer);
      Queue(number, lane, [=, this, id = event.id] {
        Log(number, Name(peer), " has disconnected");
        InputFrom(number, peer, id, [=, this](Core& core) { core.Disconnected(peer, Now(number)); });
      });
      break;
    case Of::lost:
      FailCalls(number, peer);
      TellError(number, peer, event.networkError);
      break;
    case Of::connectEnded:
      if (const auto refusal = RefusalOf(event.error); refusal != eNetworkError_None) {
        TellError(number, peer, refusal);
      }
      ConnectEnded(number, peer);
      break;
    default:
      break;
    }
  }
  static ETCPE_NetworkError RefusalOf(TCPE_CommErr error) {
    return error == eTCPE_CommErr_Full               ? eNetworkError_Full
           : error == eTCPE_CommErr_DuplicateAddress ? eNetworkError_DuplicateAddress
                                                     : eNetworkError_None;
  }
  /// Unless another connection has taken the place of that one.
  template <class Function>
  void InputFrom(int number, std::uint32_t peer, TCPE_Endpoint::Id connection, Function function) {
    const auto& open = network.At(number).open;
    if (const auto present = open.find(peer); present == open.end() || present->second.id == connection) {
      Input(number, function);
    }
  }
  void TellError(int number, std::uint32_t peer, ETCPE_NetworkError error) {
    Queue(number, kFromPeer | peer, [=, this] {
      const bool isConnected = network.At(number).open.contains(peer);
      Log(number, "error ", error, " of ", Name(peer));
      Input(number, [=, this](Core& core) { core.NetworkError(peer, error, isConnected, Now(number)); });
    });
  }
  void Take(int number, std::uint32_t peer, TCPE_Endpoint::Id connection, const TCPE_FrameHeader& header,
            const Message::Any& message) {
    Log(number, "gets ", message, " from ", Name(peer));
    const Asked asked{Now(), peer, connection, header.serial};
    if (std::holds_alternative<Message::RequestControl>(message)) {
      At(number).asked[++mLastToken] = asked;
      return Input(number, [=, this](Core& core) { core.ControlAsked(peer, mLastToken, Now(number)); });
    }
    InputFrom(number, peer, connection, [&, this](Core& core) {
      const bool isCommanded = core.IsRunning() && At(number).config.isMaster && core.Control().GetHolder() == peer;
      if (const auto* start = std::get_if<Message::StartPlayback>(&message); isCommanded && start != nullptr) {
        BeginRound(number, start->runningTime);
      } else if (isCommanded && (std::holds_alternative<Message::Prime>(message) ||
                                 std::holds_alternative<Message::StopPlayback>(message))) {
        EndRound(number);
      }
      core.Received(peer, message, Now(number));
    });
    if (!std::holds_alternative<Message::GetStartDelay>(message)) {
      if (header.Has(kTCPE_Flag_ReplyWanted)) {
        Reply(number, asked, 1);
      }
    } else if (At(number).core && At(number).behaviour.answersDelay) {
      Reply(number, asked, 1 + static_cast<std::size_t>(At(number).core->Conductor().GetStartDelay()));
    }
  }
  /// Now and then too late.
  void Reply(int number, const Asked& asked, std::size_t answer) {
    Later(number, Random(200) == 0 ? Random(2 * kReplyTime) : 0, [=, this] {
      const auto& open = network.At(number).open;
      if (const auto peer = open.find(asked.peer); peer != open.end() && peer->second.id == asked.connection) {
        network.Send(number, asked.peer,
                     SimulatedNetwork::Frame({.flags = kTCPE_Flag_Reply, .type = kMessage, .serial = asked.serial},
                                             Index(answer)));
      }
    });
  }
  void EndCall(int number, std::uint32_t serial, Core::Outcome outcome, Time value = 0) {
    System& system = At(number);
    const auto found = system.calls.find(serial);
    if (found == system.calls.end()) {
      return;
    }
    const Call call = found->second;
    system.calls.erase(found);
    if (call.request != 0) {
      InputLater(number, Random(system.largestDelay),
                 [=, this](Core& core) { core.SendEnded(call.request, call.address, outcome, Now(number), value); });
    }
  }
  void FailCalls(int number, std::uint32_t peer) {
    for (const auto& [serial, call] : std::map(At(number).calls)) {
      if (call.address == peer) {
        EndCall(number, serial, Core::Outcome::none);
      }
    }
  }
  void ConnectEnded(int number, std::uint32_t peer) {
    if (At(number).connecting != peer) {
      return;
    }
    At(number).connecting = 0;
    Later(number, Random(At(number).largestDelay), [=, this] {
      const auto& open = network.At(number).open;
      const std::uint64_t instance = open.contains(peer) ? open.at(peer).session->PeerInstance() : 0;
      At(number).connectedInstance = instance;
      Input(number, [=, this](Core& core) { core.ConnectEnded(peer, instance, Now(number)); });
      Next(number, kConnector);
      Next(number, peer);
    });
  }

  // --- the shell: what its core wants

  void CarryOut(int number, const Action::Search& /*action*/) {
    QueueLong(number, kConnector, [=, this] {
      Later(number, 100 * kMillisecond + Random(kSecond), [=, this] {
        std::vector<Event::System> masters;
        for (int other = 0; other < Count() && !network.At(number).isCutOff; ++other) {
          const System& system = At(other);
          const bool answers = system.core && !network.At(other).isFrozen && !network.At(other).isCutOff;
          if (answers && system.config.isMaster) {
            masters.push_back({.address = system.around.self.address,
                               .isAvailable = system.core->IsRunning() && system.around.allowsSatellites});
          }
        }
        Input(number, [&, this](Core& core) { core.SearchEnded(masters, Now(number)); });
        Next(number, kConnector);
      });
    });
  }
  void CarryOut(int number, const Action::Connect& action) {
    QueueLong(number, action.address, [=, this] {
      QueueLong(number, kConnector, [=, this] {
        Log(number, "connects to ", Name(action.address));
        At(number).connecting = action.address;
        if (action.address == At(number).around.self.address) {
          ConnectEnded(number, action.address);
        } else {
          network.ConnectTo(number, action.address);
        }
      });
    });
  }
  void CarryOut(int number, const Action::Disconnect& action) {
    Queue(number, action.address, [=, this] {
      Log(number, "disconnects from ", Name(action.address));
      FailCalls(number, action.address);
      network.End(number, action.address);
    });
  }
  void CarryOut(int number, const Action::Send& action) {
    mMessages.push_back(action.message);
    const bool isConfirmed = Trel_SessionCommands::IsConfirmed(action.message);
    for (const std::uint32_t address : action.to) {
      Queue(number, address, [=, this, index = mMessages.size() - 1, request = action.request] {
        Log(number, "sends ", mMessages.at(index), " to ", Name(address));
        const std::uint32_t serial = ++At(number).lastSerial;
        if (isConfirmed) {
          At(number).calls[serial] = {request, address};
          Later(number, kReplyTime, [=, this] { EndCall(number, serial, Core::Outcome::none); });
        }
        if (network.At(number).open.contains(address)) {
          Send(number, address, index, isConfirmed ? kTCPE_Flag_ReplyWanted : 0, serial);
        } else {
          EndCall(number, serial, Core::Outcome::none);
        }
      });
    }
  }
  void Send(int number, std::uint32_t address, std::size_t index, std::uint8_t flags, std::uint32_t serial) {
    network.Send(number, address,
                 SimulatedNetwork::Frame({.flags = flags, .type = kMessage, .serial = serial}, Index(index)));
  }
  void CarryOut(int number, const Action::HostPrime& action) {
    const SimulatedHost::Behaviour& as = At(number).behaviour;
    Log(number, "is to prime ", action.range.in);
    At(number).host.Prime();
    const bool isReady = Percent(as.percentReady);
    Later(number, Random(Random(20) == 0 ? as.longestPreparation : as.largestPreparation), [=, this] {
      At(number).host.isPrimed = isReady;
      HostIsDone(number, 0, isReady);
    });
  }
  void CarryOut(int number, const Action::HostStart& action) {
    SimulatedHost& host = At(number).host;
    const SimulatedHost::Behaviour& as = At(number).behaviour;
    host.Start();
    const bool declines = Percent(as.percentDeclined) || action.start.late > as.mostLate;
    const bool isSilent = Percent(as.percentSilent);
    HostIsDone(number, Random(10 * kMillisecond), !declines);
    if (declines || isSilent) {
      return;
    }
    const Time start = action.start.runningTime;
    const Time wait = std::max<Time>(start - RunningTime(number).value_or(start), 0);
    Later(number, wait, [=, this, generation = host.generation] {
      const auto running = RunningTime(number);
      if (At(number).host.generation != generation) {
        return;
      }
      At(number).host.Begin();
      Input(number, [&, this](Core& core) {
        const bool begins = running && *running - start <= At(number).behaviour.mostLate;
        begins ? core.Began(start, *running, Now(number))
               : core.DidNotBegin(start, "no clock, or too late", Now(number));
      });
    });
  }
  void CarryOut(int number, const Action::HostStop& /*action*/) {
    At(number).host.Stop();
    HostIsDone(number, Random(10 * kMillisecond), true);
  }
  void CarryOut(int number, const Action::AnswerStart& action) {
    System& system = At(number);
    const auto found = system.asked.find(action.token);
    Check(found != system.asked.end() && found->second.isStart, number, "an answer about a start that nobody wants");
    Check(Now() - found->second.since <= kLongestStartAnswer, number, "an answer about a start that comes too late");
    system.asked.erase(found);
    Log(number, "answers its host about a start ", static_cast<int>(action.answer.refusal));
    system.starts.push_back(action.answer);
    if (action.answer.refusal == Trel_LinkRefusal::none && system.config.isMaster) {
      BeginRound(number, action.answer.runningTime);
    }
  }
  void CarryOut(int number, const Action::AskHost& action) {
    const bool agrees = Random(100) < At(number).behaviour.percentAgreed;
    InputLater(number, Random(At(number).behaviour.largestThought),
               [=, this](Core& core) { core.HostAnswered(action.token, agrees, Now(number)); });
  }
  void CarryOut(int number, const Action::Answer& action) {
    const auto found = At(number).asked.find(action.token);
    Check(found != At(number).asked.end() && !found->second.isStart, number, "an answer that nobody waits for");
    const Asked asked = found->second;
    At(number).asked.erase(found);
    Log(number, "answers ", asked.peer == 0 ? "its host" : Name(asked.peer), ' ', static_cast<int>(action.value));
    Check(Now() - asked.since <= kLongestAnswer, number, "an answer that comes too late");
    if (asked.peer != 0) {
      Check(action.value != Answer::granted || !At(number).core->Control().HasControl(), number, "granted, but kept");
      Reply(number, asked, action.value == Answer::granted ? 1 : 0);
    } else {
      ++At(number).answers[action.value];
      Check(action.value != Answer::granted || At(number).core->Control().HasControl(), number, "granted, but not its");
    }
  }
  void CarryOut(int number, const Action::Listen& action) {
    Queue(number, action.address, [=, this] {
      const auto silence = network.Silence(number, action.address);
      InputLater(number, Random(At(number).largestDelay),
                 [=, this](Core& core) { core.Heard(action.address, silence, Now(number)); });
    });
  }
  void CarryOut(int /*number*/, const Action::SetMaster& /*action*/) {}
  void CarryOut(int number, const Action::ResetClock& /*action*/) { SetClock(number, 0); }
  void CarryOut(int number, const Action::Tell& action) {
    const Event& event = action.event;
    System& system = At(number);
    Log(number, "tells of ", Name(event.system.address), ": ", event);
    system.host.Take(event);
    system.told.push_back(event);
    Stage& stage = system.stages[event.system.address];
    switch (event.kind) {
    case Kind::connected:
      Check(stage == Stage::none, number, "connected again");
      stage = Stage::connected;
      if (!system.config.isMaster) {
        system.master = event.system.address;
        const int master = network.Find(system.master); // it may have moved away already
        system.link = master >= 0 ? At(master).link : 0;
        system.instance = system.connectedInstance;
        system.disturbed = Now();
      }
      break;
    case Kind::linked:
      Check(stage == Stage::connected, number, "linked before it is connected, or again");
      stage = Stage::linked;
      if (!system.config.isMaster && system.clock == 0) {
        Correlate(number);
      }
      break;
    case Kind::start:
      CheckLater(number, std::max<Time>(event.value, 0) + system.around.startDelay + kReportTime,
                 [=, this, which = system.host.starts] {
                   const SimulatedHost& host = At(number).host;
                   Check(!host.pending || host.starts != which, number, "a start without an end");
                 });
      break;
    case Kind::started:
      Check(system.config.isMaster || system.stages[system.master] == Stage::none || system.clock == system.instance,
            number, "begins by the clock of a master that is gone");
      break;
    case Kind::together:
      CheckOutcome(number, event.outcome);
      break;
    case Kind::left:
    case Kind::lost:
      Check(stage != Stage::none, number, "gone without having come");
      stage = Stage::none;
      break;
    case Kind::refused:
    case Kind::connectFailed:
      Check(stage != Stage::linked, number, "refused though it is linked");
      stage = Stage::none;
      break;
    case Kind::control:
      Check(system.config.isMaster || system.stages[system.master] == Stage::linked, number,
            "control before it is linked");
      break;
    default:
      break;
    }
  }

  void CheckOutcome(int number, const Trel_StartOutcome& outcome) {
    System& system = At(number);
    const auto round = system.rounds.find(outcome.runningTime);
    Check(round != system.rounds.end(), number, "the outcome of no start");
    for (const auto& [other, expected] : round->second.expected) {
      const std::uint32_t address = other == 0 ? system.around.self.address : other;
      Check(outcome.late.contains(address) != outcome.missing.contains(address), number,
            "an outcome without " + Name(address));
    }
    round->second.isOver = true;
  }

  static std::string NameOf(const Message::Any& message) {
    return std::visit([](const auto& fields) { return typeid(fields).name(); }, message);
  }
  static std::string NameOf(const Event& event) { return Trel_LinkTexts::Describe(event, false); }
  const bool mIsCurrent;
  std::deque<System> mSystems;
  std::deque<Message::Any> mMessages; ///< sent, or what connect commands say, by index
  Core::Token mLastToken = 0;
  std::uint64_t mLastLink = 0;
  std::map<std::uint64_t, Time> mZeros; ///< of the running times of masters, by instance
};
