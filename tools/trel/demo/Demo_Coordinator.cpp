#include "tools/trel/demo/Demo_Coordinator.h"

#include "tools/trel/common/ExitStatus.h"
#include "tools/trel/common/SignalPipe.h"
#include "tools/trel/demo/FreePort.h"

#include <trel/Sys_Clock.h>
#include <trel/Sys_Socket.h>
#include <trel/Trel_CommPreferences.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <numeric>
#include <utility>

#include <poll.h>

namespace {

using std::chrono::milliseconds;

constexpr std::uint32_t kMasterAddress = 0x7f000002; // 127.0.0.2; the satellites follow
constexpr milliseconds kPollPeriod{50};              // how late the end of a process may be noticed
constexpr milliseconds kLinkTimeOut{15'000};
constexpr milliseconds kLockTimeOut{20'000};
constexpr milliseconds kSettlingTime{2500}; // the window of measurements is full by then
constexpr milliseconds kReadyTimeOut{5000};
constexpr milliseconds kStartTimeOut{5000}; // with half a second before it, and 2 s for the reports of it
constexpr milliseconds kStopTimeOut{2000};
constexpr milliseconds kAnswerTimeOut{5000};
constexpr milliseconds kEndTimeOut{5000};

std::vector<std::uint32_t> AddressesOf(std::int32_t satellites) {
  std::vector<std::uint32_t> addresses(static_cast<std::size_t>(satellites) + 1);
  std::iota(addresses.begin(), addresses.end(), kMasterAddress);
  return addresses;
}

/// Fast and slow ones in turn, the extremes first.
std::int32_t DriftOf(std::int32_t index) {
  const std::int32_t size = 50 - 10 * (index / 2 % 5);
  return index % 2 == 0 ? size : -size;
}

/// Hours away from the master, to both sides, and no two alike.
std::int32_t OffsetMillisecondsOf(std::int32_t index) {
  constexpr std::int32_t kHour = 3'600'000;
  const std::int32_t size = (1 + index % 12) * kHour + 1234 * (index + 1);
  return index % 2 == 0 ? size : -size;
}

template <class... Parts>
std::string Text(const Parts&... parts) {
  return Demo_Log::Text(parts...);
}

} // namespace

Demo_Coordinator::Demo_Coordinator(const Options& options, std::ostream& out)
    : mOptions(options), mLog(out, options.reports), mObserver(mHosts, mLog, mResults) {
  mResults.isLegacy = options.legacy;
}

int Demo_Coordinator::Run() {
  const SignalPipe signals;
  mLog.Record("recording", mLog.Start(),
              {{"title", "Trel demonstration"},
               {"subtitle", Text(mOptions.satellites, " satellites, ", mOptions.rounds, " rounds, ",
                                 mOptions.legacy ? "legacy" : "current", " numbering, all on one machine")}});
  StartHosts();
  Conduct();
  Finish();
  if (mSignal != 0) {
    Fail(Text("interrupted by signal ", mSignal, "; all systems have been ended"));
  } else if (mLog.Failures().empty()) {
    CheckCompleteness();
  }
  mResults.failures = mLog.Failures();
  return mSignal != 0 ? kExitSignalled + mSignal : mResults.failures.empty() ? kExitSuccess : kExitFailure;
}

// --- the hosts ------------------------------------------------------------------------------------------------------

void Demo_Coordinator::StartHosts() {
  // The hosts inherit these. Nobody searches for a demonstration, and a host on this machine may have the discovery
  // port.
  setenv("TREL_AnswersDiscovery", "0", 1);
  setenv("TREL_SupportsMarlo11", mOptions.legacy ? "0" : "1", 1);
  Demo_Host::Options master;
  master.isMaster = true;
  master.address = kMasterAddress;
  master.master = kMasterAddress;
  master.port = mOptions.port != 0
                    ? mOptions.port
                    : FreePort(AddressesOf(mOptions.satellites), Trel_CommPreferences::kDefaultCommunicationPort);
  master.name = "Demo Master";
  master.satellites = mOptions.satellites;
  master.tellsClock = mOptions.reports;
  Demo_Host::Options satellite = master;
  master.captureFile = mOptions.captureFile;
  StartHost(master, ", master");
  satellite.isMaster = false;
  for (std::int32_t index = 0; index < mOptions.satellites; ++index) {
    ++satellite.address;
    satellite.name = Text("Demo Satellite ", index + 1);
    satellite.offsetMilliseconds = OffsetMillisecondsOf(index);
    satellite.driftPPM = DriftOf(index);
    StartHost(satellite, Text(", satellite, its clock is ", satellite.offsetMilliseconds / 1000,
                              " s off and drifts by ", satellite.driftPPM, " ppm"));
    mResults.satellites.push_back({.address = satellite.address,
                                   .name = satellite.name,
                                   .offset = std::int64_t{satellite.offsetMilliseconds} * 1000,
                                   .driftPPM = satellite.driftPPM,
                                   .linkedMilliseconds = {},
                                   .lockedMilliseconds = {},
                                   .clockError = {},
                                   .errorBound = {}});
  }
  std::rotate(mHosts.begin(), std::next(mHosts.begin()), mHosts.end()); // the master is the last one
}

void Demo_Coordinator::StartHost(const Demo_Host::Options& options, const std::string& words) {
  mHosts.push_back(std::make_unique<Demo_Host>(options));
  const Demo_Host& host = *mHosts.back();
  mLog.Record("system", mLog.Start(),
              {{"address", host.address}, {"name", options.name}, {"role", options.isMaster ? "master" : "satellite"}});
  Say(Text(host.address, ": process ", host.process.Id(), words));
}

void Demo_Coordinator::TakeEvents(milliseconds longest) {
  std::vector<pollfd> descriptors = {{SignalPipe::Descriptor(), POLLIN, 0}};
  for (const auto& host : mHosts) {
    descriptors.push_back({host->process.OutputDescriptor(), POLLIN, 0}); // negative ones are ignored
  }
  poll(descriptors.data(), descriptors.size(), static_cast<int>(longest.count()));
  mSignal = SignalPipe::Take();
  // The master is read first and heard last: what a satellite told before the master spoke of it is known by then.
  std::for_each(mHosts.rbegin(), mHosts.rend(), [](const auto& host) { host->process.ReadAvailable(); });
  for (const auto& host : mHosts) {
    while (const auto line = host->process.TakeLine()) {
      mObserver.Take(*line, *host);
    }
    if (!host->isOver && host->process.OutputDescriptor() < 0 && host->process.HasEnded()) {
      TakeEnd(*host);
    }
  }
}

void Demo_Coordinator::TakeEnd(Demo_Host& host) {
  host.isOver = true;
  if (!mIsFinishing || (!host.isLost && !host.process.Succeeded())) { // otherwise said already, or as it should be
    Fail(host.address + ": process " + host.process.EndText());
  }
}

bool Demo_Coordinator::AreSatellitesOver() const {
  return std::all_of(mHosts.begin(), std::prev(mHosts.end()), [](const auto& host) { return host->isOver; });
}

// --- conducting -----------------------------------------------------------------------------------------------------

template <class Condition>
bool Demo_Coordinator::Await(Condition condition, milliseconds timeOut) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + timeOut;
  while (!condition()) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
    if (left.count() <= 0 || mSignal != 0 || (Master().isOver && !mIsFinishing)) {
      return false;
    }
    TakeEvents(std::min(left, kPollPeriod));
  }
  return true;
}

template <class Condition>
Demo_Coordinator::Satellites Demo_Coordinator::AwaitEach(const Satellites& satellites, milliseconds timeOut,
                                                         const char* whatFails, Condition condition) {
  const auto isGone = [](const Demo_Host& host) { return host.isLost || host.isOver; };
  const bool isInTime = Await(
      [&] {
        return std::all_of(satellites.begin(), satellites.end(),
                           [&](const Demo_Host* host) { return isGone(*host) || condition(*host); });
      },
      timeOut);
  Satellites fulfilled;
  for (Demo_Host* const host : satellites) {
    if (condition(*host) && !isGone(*host)) {
      fulfilled.push_back(host);
    } else if (!isInTime && mSignal == 0 && !isGone(*host) && !Master().isOver) {
      Fail(host->address + ' ' + whatFails);
    }
  }
  return fulfilled;
}

bool Demo_Coordinator::Order(const std::string& command) {
  const std::int64_t answers = mObserver.CountAnswers();
  Master().Command(command);
  const bool isAnswered = Await([&] { return mObserver.CountAnswers() > answers; }, kAnswerTimeOut);
  if (!isAnswered && mSignal == 0 && !Master().isOver) {
    Fail(Master().address + " does not answer: " + command);
  }
  return isAnswered;
}

void Demo_Coordinator::Conduct() {
  Satellites satellites;
  std::transform(mHosts.begin(), std::prev(mHosts.end()), std::back_inserter(satellites),
                 [](const auto& host) { return host.get(); });
  const auto isLocked = [](const Demo_Host& host) { return host.isLocked; };
  satellites =
      AwaitEach(satellites, kLinkTimeOut, "has not linked", [](const Demo_Host& host) { return host.isLinked; });
  satellites = AwaitEach(satellites, kLockTimeOut, "has not reported the lock of its clock", isLocked);
  if (!satellites.empty()) {
    Say(Text("the clocks settle for ", kSettlingTime.count(), " ms"));
    Await([] { return false; }, kSettlingTime);
  }
  for (std::int32_t round = 1; round <= mOptions.rounds && mSignal == 0 && !Master().isOver; ++round) {
    satellites = AwaitEach(satellites, kReadyTimeOut, "is not locked any more", isLocked);
    if (satellites.empty()) {
      Fail(Text("no satellite is left for round ", round));
      return;
    }
    if (!PlayRound(round, satellites)) {
      return;
    }
  }
}

bool Demo_Coordinator::PlayRound(std::int32_t round, const Satellites& satellites) {
  mObserver.BeginRound(round);
  if (!Order("prime")) {
    return false;
  }
  const Satellites ready = AwaitEach(satellites, kReadyTimeOut, "is not ready to play",
                                     [](const Demo_Host& host) { return host.transport == "primed"; });
  if (!Order("start in 500ms")) {
    return false;
  }
  if (!Await([this] { return mObserver.IsStartOver(); }, kStartTimeOut) && mSignal == 0 && !Master().isOver) {
    Fail(Text("round ", round, ": it is not known who has started"));
  }
  mObserver.SayStart();
  if (!Order("stop")) {
    return false;
  }
  AwaitEach(ready, kStopTimeOut, "has not stopped", [](const Demo_Host& host) { return host.transport == "stopped"; });
  return true;
}

// --- the end --------------------------------------------------------------------------------------------------------

void Demo_Coordinator::Finish() {
  mIsFinishing = true;
  // A lost system may hang, and an interruption is not to wait for anybody.
  for (const auto& host : mHosts) {
    host->isLeaving = true;
    if (mSignal != 0 || host->isLost) {
      host->process.Kill();
    }
  }
  if (mSignal == 0) {
    const auto end = [this](Demo_Host& host) {
      if (!host.options.isMaster) {
        host.Command(Text("clock-errors ", mObserver.Epoch()));
      }
      host.Command("quit");
    };
    std::for_each(mHosts.begin(), std::prev(mHosts.end()), [&](const auto& host) { end(*host); });
    if (!Await([this] { return AreSatellitesOver(); }, kEndTimeOut) && mSignal == 0) {
      Fail("not all satellites have ended");
    }
    end(Master());
    if (!Await([this] { return Master().isOver; }, kEndTimeOut) && mSignal == 0) {
      Fail("the master has not ended");
    }
  }
  mHosts.clear(); // kills those that are left
  std::erase_if(mResults.starts, [](const auto& start) { return start.late.empty(); });
}

void Demo_Coordinator::CheckCompleteness() {
  for (const Demo_Results::Satellite& satellite : mResults.satellites) {
    if (!satellite.clockError) {
      Fail(Sys_Socket::DecodeIPAddress(satellite.address) + ": no figures of its clock");
    }
  }
  for (const std::uint32_t address : AddressesOf(mOptions.satellites)) {
    const auto count = std::count_if(mResults.starts.begin(), mResults.starts.end(),
                                     [&](const auto& start) { return start.late.contains(address); });
    if (count != mOptions.rounds) {
      Fail(Text(Sys_Socket::DecodeIPAddress(address), ": started ", count, " times in place of ", mOptions.rounds));
    }
  }
}

void Demo_Coordinator::Say(const std::string& text) { mLog.Say(Sys_Clock::RawMicroseconds(), text); }

void Demo_Coordinator::Fail(const std::string& text) { mLog.Fail(Sys_Clock::RawMicroseconds(), text); }
