#include "tools/trel/host/Host_Waiting.h"

#include "tools/trel/host/Host_Arguments.h"
#include "tools/trel/host/Host_Error.h"
#include "tools/trel/host/Host_Input.h"
#include "tools/trel/host/Host_Session.h"
#include "tools/trel/host/Host_UsageError.h"

#include <trel/Sys_Clock.h>

#include <algorithm>
#include <chrono>
#include <sstream>

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kLookPeriod{20};
constexpr std::int64_t kLongestWait = 30'000'000; // microseconds

} // namespace

const Host_Waiting::Goal Host_Waiting::kGoals[] = {
    {"locked", "not all clocks are locked", &Host_Waiting::AreClocksLocked},
    {"primed", "not all systems are primed", &Host_Waiting::AreAllPrimed},
    {"played", "nothing has been played", &Host_Waiting::HasPlayed},
    {"control", "this system is not in control", &Host_Waiting::HasControl},
};

Host_Console::Answer Host_Waiting::Wait(Host_Arguments& arguments) {
  std::function<bool()> condition; // empty: until a time has passed
  std::string otherwise;
  std::int64_t time = 0;
  const auto* const goal = std::find_if(std::begin(kGoals), std::end(kGoals),
                                        [&arguments](const Goal& known) { return arguments.Skip(known.name); });
  if (goal != std::end(kGoals)) {
    condition = [this, goal] { return (this->*goal->isReached)(); };
    otherwise = goal->otherwise;
  } else if (arguments.Skip("linked")) {
    const bool isCounted = !arguments.IsEmpty() && !arguments.IsNext("for");
    const std::int64_t count = isCounted ? arguments.TakeNumber("how many systems") : 1;
    if (count < 0) {
      throw Host_UsageError("there cannot be fewer than no systems");
    }
    condition = [this, count] { return mSession->GetLinkedAddresses().size() >= static_cast<std::size_t>(count); };
    otherwise = "fewer systems than " + std::to_string(count) + " are linked with this one";
  } else {
    time = arguments.TakeTime("what to wait for");
  }
  const std::int64_t timeOut = arguments.Skip("for") ? arguments.TakeTime("the time") : kLongestWait;
  arguments.ExpectEnd();
  if (condition) {
    Until(condition, otherwise, timeOut);
  } else {
    Pause(time);
  }
  return {};
}

void Host_Waiting::UntilPrimed() {
  Until([this] { return mSession->GetState().transport != eTrel_State_Priming; }, "this system is not ready",
        kLongestWait);
}

bool Host_Waiting::AreClocksLocked() const {
  return mSession->IsClockLocked() &&
         (!mSession.IsMaster() || DoAllLinked([](const Trel_SystemState& other) { return other.isClockLocked; }));
}

bool Host_Waiting::AreAllPrimed() const {
  const auto isPrimed = [](const Trel_SystemState& state) { return state.transport == eTrel_State_PrimeCompleted; };
  return isPrimed(mSession->GetState()) && DoAllLinked(isPrimed);
}

bool Host_Waiting::HasPlayed() const {
  const auto played = mSession.LastPlayed();
  return played && (!mExpectedStart || *played == *mExpectedStart);
}

bool Host_Waiting::HasControl() const { return mSession->HasControl(); }

bool Host_Waiting::DoAllLinked(bool (*hold)(const Trel_SystemState& other)) const {
  const auto linked = mSession->GetLinkedAddresses();
  const auto others = mSession->GetStates();
  return std::all_of(linked.begin(), linked.end(), [&](std::uint32_t address) {
    const auto other = others.find(address);
    return other != others.end() && (!other->second.IsTakingPart() || hold(other->second));
  });
}

void Host_Waiting::Pause(std::int64_t time) {
  const std::int64_t end = Sys_Clock::RawMicroseconds() + time;
  while (Sys_Clock::RawMicroseconds() < end && mInput.Pause(std::min(kLookPeriod, milliseconds(time / 1000 + 1)))) {
  }
}

void Host_Waiting::Until(const std::function<bool()>& condition, const std::string& otherwise, std::int64_t timeOut) {
  const std::int64_t end = Sys_Clock::RawMicroseconds() + timeOut;
  while (!condition()) {
    if (Sys_Clock::RawMicroseconds() > end) {
      constexpr double kMicrosecondsOfSecond = 1e6;
      std::ostringstream text;
      text << otherwise << " after " << static_cast<double>(timeOut) / kMicrosecondsOfSecond << " s";
      throw Host_Error(text.str());
    }
    if (!mInput.Pause(kLookPeriod)) {
      throw Host_Error("ended by a signal");
    }
  }
}
