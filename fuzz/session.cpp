#include "fuzz/FuzzInput.h"
#include "link/session/Trel_SessionCore.h"
#include "tests/support/SimulatedHost.h"

#include <sanitizer/allocator_interface.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <type_traits>
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

/// Becomes whatever a field of a message is.
template <class Of>
struct Field {
  FuzzInput& input;

  template <class Value>
  requires(!std::is_same_v<Value, Of>) operator Value() const {
    if constexpr (std::is_same_v<Value, bool>) {
      return input.U8() % 2 == 0;
    } else if constexpr (std::is_same_v<Value, std::uint32_t>) {
      return Address(input);
    } else if constexpr (std::is_same_v<Value, Core::Time>) {
      return Time(input);
    } else if constexpr (std::is_integral_v<Value> || std::is_enum_v<Value>) {
      return static_cast<Value>(input.U8() % 64 - 2);
    } else if constexpr (std::is_same_v<Value, std::string>) {
      return input.Bytes(input.U8() % 8);
    } else if constexpr (std::is_same_v<Value, Core::System>) {
      return System(input);
    } else if constexpr (std::is_same_v<Value, Trel_PlayRange>) {
      return {Time(input), Time(input)};
    } else if constexpr (std::is_same_v<Value, std::vector<Core::System>>) {
      Value systems(input.U8());
      std::generate(systems.begin(), systems.end(), [this] { return System(input); });
      return systems;
    } else {
      Value flags;
      flags.fill(input.U8() % 2 == 0);
      return flags;
    }
  }
};

/// With as many fields as it has.
template <class Made, class... Fields>
Made MakeOf(FuzzInput& input, Fields... fields) {
  if constexpr (requires { Made{fields..., Field<Made>{input}}; }) {
    return MakeOf<Made>(input, fields..., Field<Made>{input});
  } else {
    return {fields...};
  }
}

template <std::size_t kIndex = 0>
Message::Any Make(std::size_t index, FuzzInput& input) {
  if constexpr (kIndex + 1 < std::variant_size_v<Message::Any>) {
    if (index != kIndex) {
      return Make<kIndex + 1>(index, input);
    }
  }
  return MakeOf<std::variant_alternative_t<kIndex, Message::Any>>(input);
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
    static constexpr void (*kSteps[])(Shell & on) = {
        [](Shell& on) { on.Notice(); },
        [](Shell& on) {
          on.mIsHostBusy = on.mIsHostBusy && on.mCore->IsRunning();
          on.mCore->Begin(on.mNow);
        },
        [](Shell& on) { on.mCore->Resume(on.mNow); },
        [](Shell& on) { on.mCore->End(on.mNow); },
        [](Shell& on) {
          Core::System system = System(*on.mInput);
          system.address = on.mPeer;
          on.mCore->Connected(system, on.mValue, on.mNow);
        },
        [](Shell& on) { on.mCore->Disconnected(on.mPeer, on.mNow); },
        [](Shell& on) {
          on.mCore->NetworkError(on.mPeer, static_cast<ETCPE_NetworkError>(on.mValue % 9), on.mValue >= 128, on.mNow);
        },
        [](Shell& on) { on.mCore->ControlAsked(on.mPeer, on.NewToken(), on.mNow); },
        [](Shell& on) { on.mCore->ConnectEnded(on.mPeer, on.mValue % 3, on.mNow); },
        [](Shell& on) {
          std::vector<Core::Event::System> masters(on.mValue % 4);
          for (auto& master : masters) {
            master = {.address = Address(*on.mInput), .isAvailable = on.mValue >= 64};
          }
          on.mCore->SearchEnded(masters, on.mNow);
        },
        [](Shell& on) {
          const auto outcome = static_cast<Core::Outcome>(on.mOperation / 30 % 3);
          on.mCore->SendEnded(on.mValue, on.mPeer, outcome, on.mNow, Time(*on.mInput));
        },
        [](Shell& on) { on.mCore->HostAnswered(on.mValue, on.mOperation >= 128, on.mNow); },
        [](Shell& on) {
          on.mCore->Heard(on.mPeer, on.mValue < 64 ? std::optional<Core::Time>() : on.mValue * 50'000, on.mNow);
        },
        [](Shell& on) { on.mCore->RequestControl(on.NewToken(), on.mNow); },
        [](Shell& on) { on.mCore->SetOrderNumber(on.mPeer, on.mValue, on.mNow); },
        [](Shell& on) { on.mCore->DisconnectSystem(on.mPeer, on.mNow); },
        [](Shell& on) { on.mCore->Renamed(on.mNow); },
        [](Shell& on) {
          on.mNow += Core::Time{on.mValue} * on.mValue * 1000;
          on.mCore->Tick(on.mNow);
          Check(on.mCore->NextDeadline() > on.mNow, "what was due stays due");
        },
        [](Shell& on) {
          if (on.mOperation >= 128) {
            on.mCore->Stop(on.mNow);
          } else {
            const auto refusal = on.mCore->Prime({Time(*on.mInput), Time(*on.mInput)}, on.mNow);
            Check((refusal == Trel_LinkRefusal::none) == on.mCore->Control().HasControl(), "refused, or not, wrongly");
          }
        },
        [](Shell& on) {
          const auto when = static_cast<Trel_StartRequest::When>(on.mValue % 3);
          on.mCore->Start({when, Time(*on.mInput), on.mValue >= 128}, on.NewToken(), on.mNow);
        },
        [](Shell& on) {
          if (std::exchange(on.mIsHostBusy, false)) {
            on.mCore->HostDone(on.mValue % 4 != 0, on.mNow);
          }
        },
        [](Shell& on) {
          on.mValue < 192 ? on.mCore->Began(on.mStart, Time(*on.mInput), on.mNow)
                          : on.mCore->DidNotBegin(on.mStart, "why", on.mNow);
        },
        [](Shell& on) {
          SimulatedHost::Change(on.mCore->State(), on.mPeer, [&on](std::uint32_t bound) {
            return static_cast<std::uint8_t>(on.mInput->U8() % bound);
          });
        },
    };

    mOperation = input.U8();
    mPeer = Address(input);
    mValue = input.U8();
    mInput = &input;
    if (const std::size_t step = mOperation % 30U; step < std::size(kSteps)) {
      kSteps[step](*this);
    } else {
      mCore->Received(mPeer, Make(mValue % std::variant_size_v<Message::Any>, input), mNow);
    }
    CarryOut();
  }

private:
  void Notice() {
    mAround = {.self = System(*mInput), .allowsSatellites = mValue % 8 != 0, .maxSatellites = mValue};
    mAround.runningTime = mValue % 4 != 0 ? std::optional(Time(*mInput)) : std::nullopt;
    mAround.startDelay = Time(*mInput);
    mCore->Notice(mAround, mNow);
  }
  void CarryOut() {
    const std::vector<Action::Any> actions = mCore->TakeActions();
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
    Check(mCore->GetSystems().size() <= kMostPeers + 1 && mCore->GetLinkedAddresses().size() <= kMostPeers, "too many");
  }
  Action::Token NewToken() {
    mAsked.insert(++mLastToken);
    return mLastToken;
  }

  std::unique_ptr<Core> mCore;
  // The step.
  FuzzInput* mInput = nullptr;
  std::uint8_t mOperation = 0;
  std::uint32_t mPeer = 0;
  std::uint8_t mValue = 0;

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
