#include "link/session/Trel_SessionCore.h"

#include "link/session/Trel_MasterSession.h"
#include "link/session/Trel_SatelliteSession.h"

#include <algorithm>
#include <variant>

namespace {

// Microseconds: the answer of the system in control, and an announcement with the time-outs of dead systems.
constexpr Trel_SessionTime kLongestOwnRequest = 9'000'000;
constexpr std::size_t kMostQuestions = 64; // to the host, by peers that each wait for one

} // namespace

std::unique_ptr<Trel_SessionCore> Trel_SessionCore::Make(const Config& config) {
  if (config.isMaster) {
    return std::make_unique<Trel_MasterSession>(config);
  }
  return std::make_unique<Trel_SatelliteSession>(config);
}

Trel_SessionCore::Trel_SessionCore(const Config& config)
    : mConfig(config), mState(*this), mConductor(*this, mState), mRandom(config.seed) {}

Trel_SessionCore::~Trel_SessionCore() = default;

void Trel_SessionCore::Notice(const Surroundings& surroundings, Time now) {
  const std::uint32_t before = Self();
  mSurroundings = surroundings;
  mHasAddress = Self() != 0;
  if (!mHasAddress) { // while there is no adaptor
    mSurroundings.self.address = before;
  }
  const bool wasLocked = std::exchange(mRunningOffset, std::nullopt).has_value();
  if (surroundings.runningTime && Trel_Conductor::IsSane(*surroundings.runningTime)) {
    mRunningOffset = *surroundings.runningTime - now;
    if (!wasLocked) {
      mConductor.ClockLocked(now);
    }
  }
  mConductor.SetStartDelay(surroundings.startDelay);
  if (mIsRunning) {
    mState.NoteClock(mRunningOffset.has_value());
  }
}

std::optional<Trel_SessionTime> Trel_SessionCore::RunningTime(Time now) const {
  return mRunningOffset ? std::optional(now + *mRunningOffset) : std::nullopt;
}

// --- what concerns all roles ----------------------------------------------------------------------------------------

void Trel_SessionCore::BeginShared() {
  mIsRunning = true;
  mConductor.Begin();
  mState.NoteClock(mRunningOffset.has_value());
}

void Trel_SessionCore::ClockReset(Time now) {
  Do(Action::ResetClock{});
  mRunningOffset.reset();
  mConductor.ClockReset(now);
  mState.NoteClock(false);
}

void Trel_SessionCore::EndShared(Time now) { mConductor.End(now); }

void Trel_SessionCore::TickShared(Time now) {
  CheckOwnRequest(now);
  mConductor.Tick(now);
}

void Trel_SessionCore::LinkedWith(std::uint32_t address) {
  mState.Linked(address);
  mConductor.Linked(address);
}

void Trel_SessionCore::GoneFrom(std::uint32_t address, Time now) {
  mState.Forget(address);
  mConductor.Gone(address, now);
}

void Trel_SessionCore::GoneFromAll() { mState.ForgetAll(); }

void Trel_SessionCore::Received(std::uint32_t from, const Message::Any& message, Time now) {
  if (!mIsRunning) {
    return;
  }
  const ETrel_State before = mState.Of(from).transport;
  std::visit(
      [&](const auto& received) {
        if constexpr (requires { mConductor.On(from, received, now); }) {
          mConductor.On(from, received, now);
        } else if constexpr (requires { mState.On(from, received); }) {
          if (IsOfLink(from)) {
            mState.On(from, received);
            mConductor.StateChanged(from, before, now);
          }
        } else {
          ReceivedOfLink(from, message, now);
        }
      },
      message);
}

void Trel_SessionCore::SendEnded(Request request, std::uint32_t address, Outcome outcome, Time now, Time value) {
  mConductor.SendEnded(request, address, outcome, value, now);
  SendOfLinkEnded(request, address, outcome, now);
}

std::int32_t Trel_SessionCore::GetPlace() const {
  const std::vector<System> systems = GetSystems();
  const auto self =
      std::find_if(systems.begin(), systems.end(), [this](const System& system) { return system.address == Self(); });
  return self != systems.end() ? self->place : 0;
}

void Trel_SessionCore::Send(std::set<std::uint32_t> to, Message::Any message, Request request, Token waiting) {
  if (!to.empty()) {
    Do(Action::Send{.to = std::move(to), .message = std::move(message), .request = request, .waiting = waiting});
  }
}

void Trel_SessionCore::Tell(Event event) {
  if (!mIsRunning) {
    return;
  }
  event.isHere = event.system.address != 0 && event.system.address == Self();
  Do(Action::Tell{std::move(event)});
}

Trel_LinkEvent::System Trel_SessionCore::Described(const System& system) const {
  return {.address = system.address, .uniqueID = system.uniqueID, .name = system.name};
}

void Trel_SessionCore::TellNetworkError(std::uint32_t address, ETCPE_NetworkError error) {
  Tell({.kind = Event::Kind::networkError,
        .reason = Trel_LinkEvent::Reason::networkError,
        .error = error,
        .value = error,
        .system = Describe(address)});
}

bool Trel_SessionCore::BeginOwnRequest(Token token, Time now) {
  if (mControl.HasControl()) {
    Do(Action::Answer{token, Answer::granted});
    return false;
  }
  if (!mControl.BeginRequest()) {
    Do(Action::Answer{token, Answer::busy});
    return false;
  }
  mOwnRequest = {.token = token, .deadline = now + kLongestOwnRequest, .losses = mControl.GetLosses()};
  return true;
}

void Trel_SessionCore::EndOwnRequest(Answer answer) {
  mControl.EndRequest();
  Do(Action::Answer{mOwnRequest->token, answer});
  mOwnRequest.reset();
}

void Trel_SessionCore::CheckOwnRequest(Time now) {
  if (!mOwnRequest) {
    return;
  }
  if (mControl.HasControl()) {
    EndOwnRequest(Answer::granted);
  } else if (mControl.GetLosses() != mOwnRequest->losses) {
    EndOwnRequest(Answer::noLink);
  } else if (now >= mOwnRequest->deadline) {
    EndOwnRequest(Answer::busy);
  }
}

bool Trel_SessionCore::AskToLetGo(std::uint32_t asker, Token token) {
  const auto ticket = mControl.AskToLetGo();
  if (!ticket || mQuestions.size() >= kMostQuestions) {
    return false;
  }
  mQuestions.push_back({token, *ticket});
  Do(Action::AskHost{token, asker});
  return true;
}

std::optional<bool> Trel_SessionCore::LetGo(Token token, bool agrees) {
  const auto question = std::find_if(mQuestions.begin(), mQuestions.end(),
                                     [token](const Question& asked) { return asked.token == token; });
  if (question == mQuestions.end()) {
    return std::nullopt;
  }
  const Trel_ControlState::Ticket ticket = question->ticket;
  mQuestions.erase(question);
  return agrees && mControl.LetGo(ticket);
}

void Trel_SessionCore::LoseLink(Time now) {
  mControl.LoseLink();
  CheckOwnRequest(now);
}
