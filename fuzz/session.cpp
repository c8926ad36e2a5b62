#include "fuzz/FuzzInput.h"
#include "link/session/Trel_SessionCore.h"

#include <sanitizer/allocator_interface.h>

#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

// The session cores of a master and of a satellite, whose owner tells them whatever the input says, in any order. Like
// the engine it knows no more than 128 connected peers. A core answers each input with few actions, each asker once,
// asks the host one thing at a time, gets on with what is due, and grows no further than a full link.

namespace {

using Core = Trel_SessionCore;
using Message = Core::Message;
using Action = Core::Action;

constexpr std::uint32_t kMostPeers = 128;
constexpr std::size_t kMostMemory = std::size_t{1024} * 1024;

void Check(bool condition, const char* failure) {
  if (!condition) {
    throw std::logic_error(failure);
  }
}

/// Mostly one of a few.
std::uint32_t Address(FuzzInput& input) {
  const std::uint8_t address = input.U8();
  return address % (address < 192 ? 4U : kMostPeers);
}

Core::System System(FuzzInput& input) {
  return {.address = Address(input),
          .port = static_cast<std::uint16_t>(input.U8() % 2),
          .uniqueID = input.U8() % 64,
          .place = input.U8(),
          .name = input.Bytes(input.U8() % 8)};
}

/// Mostly near, sometimes anywhere.
Core::Time Time(FuzzInput& input) {
  const std::uint8_t time = input.U8();
  std::uint64_t any = time;
  for (int byte = 0; time >= 192 && byte < 8; ++byte) {
    any = any << 8U | input.U8();
  }
  return time < 192 ? time * Core::Time{10'000} : static_cast<Core::Time>(any);
}

template <std::size_t kIndex = 0>
Message::Any Make(std::size_t index, FuzzInput& input) {
  if constexpr (kIndex < std::variant_size_v<Message::Any>) {
    if (index != kIndex) {
      return Make<kIndex + 1>(index, input);
    }
    std::variant_alternative_t<kIndex, Message::Any> message;
    const Core::System system = System(input);
    if constexpr (requires { message.systems; }) {
      for (int count = input.U8(); count > 0; --count) {
        message.systems.push_back(input.IsEmpty() ? system : System(input));
      }
    }
    if constexpr (requires { message.system; }) {
      message.system = system;
    }
    if constexpr (requires { message.address; }) {
      message.address = system.address;
    }
    if constexpr (requires { message.uniqueID; }) {
      message.uniqueID = system.uniqueID;
    }
    if constexpr (requires { message.uniqueIDTo; }) {
      message.uniqueIDTo = system.uniqueID;
    }
    if constexpr (requires { message.place; }) {
      message.place = system.place;
    }
    if constexpr (requires { message.success; }) {
      message.success = system.place % 2 == 0;
    }
    if constexpr (requires { message.name; }) {
      message.name = system.name;
    }
    if constexpr (requires { message.text; }) {
      message.text = system.name;
    }
    if constexpr (requires { message.isOn; }) {
      message.isOn = system.place % 2 == 0;
    }
    if constexpr (requires { message.runningTime; }) {
      message.runningTime = Time(input);
    }
    if constexpr (requires { message.range; }) {
      message.range = {Time(input), Time(input)};
    }
    if constexpr (requires { message.transport; }) {
      message.transport = static_cast<ETrel_State>(system.place % 16);
    }
    if constexpr (requires { message.link; }) {
      message.link = static_cast<ETrel_LinkState>(system.place % 5);
    }
    if constexpr (requires { message.group; }) {
      message.group = static_cast<ETrel_Group>(system.uniqueID - 2);
    }
    if constexpr (requires { message.groups; }) {
      message.groups.fill(system.place % 2 == 0);
    }
    if constexpr (requires { message.format; }) {
      message.format = static_cast<ETrel_VideoReferenceFormat>(system.place % 8);
    }
    return message;
  } else {
    return Message::RequestControl{};
  }
}

/// One core and its owner.
class Shell {
public:
  Shell(bool isMaster, std::uint8_t settings)
      : mCore(Core::Make({.isMaster = isMaster,
                          .isCurrentNumbering = settings % 2 == 0,
                          .masterAddress = settings / 2U % 4,
                          .wantsMesh = settings / 8 % 2 == 0,
                          .reconnects = settings / 16 % 8 != 0})) {
    mCore->Notice(mAround, mNow);
  }

  void Step(FuzzInput& input) {
    const std::uint8_t operation = input.U8();
    const std::uint32_t peer = Address(input);
    const std::uint8_t value = input.U8();
    Core& core = *mCore;
    switch (operation % 30) {
    case 0:
      mAround = {.self = System(input), .allowsSatellites = value % 8 != 0, .maxSatellites = value};
      mAround.runningTime = value % 4 != 0 ? std::optional(Time(input)) : std::nullopt;
      mAround.startDelay = Time(input);
      core.Notice(mAround, mNow);
      break;
    case 1:
      if (!core.IsRunning()) {
        mIsHostBusy = false;
      }
      core.Begin(mNow);
      break;
    case 2:
      core.Resume(mNow);
      break;
    case 3:
      core.End(mNow);
      break;
    case 4: {
      Core::System system = System(input);
      system.address = peer;
      core.Connected(system, value, mNow);
      break;
    }
    case 5:
      core.Disconnected(peer, mNow);
      break;
    case 6:
      core.NetworkError(peer, static_cast<ETCPE_NetworkError>(value % 9), value >= 128, mNow);
      break;
    case 7:
      core.ControlAsked(peer, NewToken(), mNow);
      break;
    case 8:
      core.ConnectEnded(peer, value % 3, mNow);
      break;
    case 9: {
      std::vector<Core::Event::System> masters(value % 4);
      for (auto& master : masters) {
        master = {.address = Address(input), .isAvailable = value >= 64};
      }
      core.SearchEnded(masters, mNow);
      break;
    }
    case 10:
      core.SendEnded(value, peer, static_cast<Core::Outcome>(operation / 30 % 3), mNow, Time(input));
      break;
    case 11:
      core.HostAnswered(value, operation >= 128, mNow);
      break;
    case 12:
      core.Heard(peer, value < 64 ? std::optional<Core::Time>() : value * 50'000, mNow);
      break;
    case 13:
      core.RequestControl(NewToken(), mNow);
      break;
    case 14:
      core.SetOrderNumber(peer, value, mNow);
      break;
    case 15:
      core.DisconnectSystem(peer, mNow);
      break;
    case 16:
      core.Renamed(mNow);
      break;
    case 17:
      mNow += Core::Time{value} * value * 1000;
      core.Tick(mNow);
      Check(core.NextDeadline() > mNow, "what was due stays due");
      break;
    case 18:
      if (operation < 128) {
        const bool isRefused = core.Prime({Time(input), Time(input)}, mNow) != Trel_LinkRefusal::none;
        Check(isRefused != core.Control().HasControl(), "who is in control is refused");
      } else {
        core.Stop(mNow);
      }
      break;
    case 19:
      core.Start({.when = static_cast<Trel_StartRequest::When>(value % 3),
                  .time = Time(input),
                  .withoutUnready = value >= 128},
                 NewToken(), mNow);
      break;
    case 20:
      if (std::exchange(mIsHostBusy, false)) {
        core.HostDone(value % 4 != 0, mNow);
      }
      break;
    case 21:
      value < 192 ? core.Began(mStart, Time(input), mNow) : core.DidNotBegin(mStart, "why", mNow);
      break;
    case 22:
      ChangeState(core.State(), input, value);
      break;
    default:
      core.Received(peer, Make(value % std::variant_size_v<Message::Any>, input), mNow);
    }
    const std::vector<Action::Any> actions = core.TakeActions();
    Check(actions.size() <= 16 + 6 * (kMostPeers + 1), "much because of little");
    for (const Action::Any& action : actions) {
      if (const auto* answer = std::get_if<Action::Answer>(&action)) {
        Check(mAsked.erase(answer->token) == 1, "an answer that nobody waits for");
      } else if (const auto* start = std::get_if<Action::AnswerStart>(&action)) {
        Check(mAsked.erase(start->token) == 1, "an answer about a start that nobody waits for");
      } else if (std::holds_alternative<Action::HostPrime>(action) ||
                 std::holds_alternative<Action::HostStart>(action) ||
                 std::holds_alternative<Action::HostStop>(action)) {
        Check(!std::exchange(mIsHostBusy, true), "the host is asked for two things at once");
      }
      if (const auto* start = std::get_if<Action::HostStart>(&action)) {
        mStart = start->start.runningTime;
      }
    }
    Check(core.GetSystems().size() <= kMostPeers + 1 && core.GetLinkedAddresses().size() <= kMostPeers, "too many");
  }

private:
  static void ChangeState(Trel_SharedState& state, FuzzInput& input, std::uint8_t value) {
    const bool isOn = value % 2 == 0;
    switch (value / 2 % 13) {
    case 0:
      return state.SetSoloed(isOn);
    case 1:
      return state.SetRecording(isOn);
    case 2:
      return state.SetOnline(isOn);
    case 3:
      return state.SetTakingPart(isOn);
    case 4:
      return state.SetVideoReference(static_cast<ETrel_VideoReferenceFormat>(input.U8() % 8));
    case 5:
      return state.SetDialog(input.Bytes(input.U8() % 8));
    case 6:
      return void(state.SetLoopPlay(isOn));
    case 7:
      return void(state.SetSelection({Time(input), Time(input)}));
    case 8:
      return void(state.EnableGroup(static_cast<ETrel_Group>(input.U8()), isOn));
    case 9:
      return void(state.SoloAll(isOn));
    case 10:
      return void(state.RequestOnline(isOn, Address(input)));
    case 11:
      return void(state.RequestTakingPart(isOn, Address(input)));
    default:
      return void(state.PressButton(isOn));
    }
  }
  Action::Token NewToken() {
    mAsked.insert(++mLastToken);
    return mLastToken;
  }

  std::unique_ptr<Core> mCore;
  Core::Surroundings mAround{
      .self = {.address = kMostPeers, .port = 1, .uniqueID = 7}, .allowsSatellites = true, .maxSatellites = 128};
  Core::Time mNow = 0;
  Action::Token mLastToken = 0;
  std::set<Action::Token> mAsked;
  bool mIsHostBusy = false;
  Core::Time mStart = 0; ///< that the host is to make
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  for (const bool isMaster : {true, false}) {
    FuzzInput input(data, size);
    const std::size_t before = __sanitizer_get_current_allocated_bytes();
    Shell shell(isMaster, input.U8());
    while (!input.IsEmpty()) {
      shell.Step(input);
    }
    Check(__sanitizer_get_current_allocated_bytes() <= before + kMostMemory, "it grows");
  }
  return 0;
}
