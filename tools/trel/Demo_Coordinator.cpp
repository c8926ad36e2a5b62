#include "Demo_Coordinator.h"

#include "Demo_Master.h"
#include "ExitStatus.h"
#include "FreePort.h"
#include "SignalPipe.h"

#include <trel/Sys_Clock.h>
#include <trel/Sys_Socket.h>
#include <trel/Trel_CommPreferences.h>

#include <algorithm>
#include <array>
#include <filesystem>
#include <iomanip>
#include <numeric>
#include <sstream>
#include <utility>

#include <poll.h>

namespace {

using std::chrono::milliseconds;

constexpr std::uint32_t kMasterAddress = 0x7f000002; // 127.0.0.2; the satellites follow
constexpr milliseconds kPollPeriod{50};              // how late the end of a process may be noticed
constexpr milliseconds kEndTimeOut{5000};
constexpr milliseconds kStartMargin{5000};
constexpr std::size_t kMostSystemsOnALine = 8;

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
  std::ostringstream text;
  (text << ... << parts);
  return text.str();
}

} // namespace

Demo_Coordinator::Node::Node(Demo_NodeOptions nodeOptions, const std::string& program)
    : options(std::move(nodeOptions)), process(options.ToArguments(program)) {}

Demo_Coordinator::Demo_Coordinator(const Options& options, std::ostream& out)
    : mOptions(options), mOut(out), mStart(Sys_Clock::RawMicroseconds()) {
  mResults.isLegacy = options.legacy;
}

int Demo_Coordinator::Run() {
  const SignalPipe signals;
  Record("recording", mStart,
         {{"title", "Trel demonstration"},
          {"subtitle", Text(mOptions.satellites, " satellites, ", mOptions.rounds, " rounds, ",
                            mOptions.legacy ? "legacy" : "current", " numbering, all on one machine")}});
  StartNodes();
  const milliseconds longest = Demo_Master::LongestRun(mOptions.rounds) + kStartMargin;
  TakeEventsUntil([this] { return mIsDone || mNodes.back()->isOver || AreSatellitesOver(); }, longest,
                  "the master has not come to an end");
  Finish();
  if (mSignal != 0) {
    Fail(Sys_Clock::RawMicroseconds(), Text("interrupted by signal ", mSignal, "; all systems have been ended"));
    return kExitSignalled + mSignal;
  }
  return mResults.failures.empty() ? kExitSuccess : kExitFailure;
}

void Demo_Coordinator::StartNodes() {
  const std::string program = std::filesystem::read_symlink("/proc/self/exe");
  Demo_NodeOptions master;
  master.address = kMasterAddress;
  master.master = kMasterAddress;
  master.port = mOptions.port != 0
                    ? mOptions.port
                    : FreePort(AddressesOf(mOptions.satellites), Trel_CommPreferences::kDefaultCommunicationPort);
  master.name = "Demo Master";
  master.satellites = mOptions.satellites;
  master.rounds = mOptions.rounds;
  master.legacy = mOptions.legacy;
  master.captureFile = mOptions.captureFile;
  master.coordinator = getpid();
  master.tellsClock = mOptions.reports;
  RecordSystem(master);
  auto masterNode = std::make_unique<Node>(master, program);
  Say(Sys_Clock::RawMicroseconds(), Text(NameOf(master.address), ": process ", masterNode->process.Id(), ", master"));
  for (std::int32_t index = 0; index < mOptions.satellites; ++index) {
    Demo_NodeOptions satellite = master;
    satellite.captureFile.clear();
    satellite.address += static_cast<std::uint32_t>(index) + 1;
    satellite.name = Text("Demo Satellite ", index + 1);
    satellite.offsetMilliseconds = OffsetMillisecondsOf(index);
    satellite.driftPPM = DriftOf(index);
    RecordSystem(satellite);
    mNodes.push_back(std::make_unique<Node>(satellite, program));
    mResults.satellites.push_back({.address = satellite.address,
                                   .name = satellite.name,
                                   .offset = std::int64_t{satellite.offsetMilliseconds} * 1000,
                                   .driftPPM = satellite.driftPPM,
                                   .linkedMilliseconds = {},
                                   .lockedMilliseconds = {},
                                   .clockError = {},
                                   .errorBound = {}});
    Say(Sys_Clock::RawMicroseconds(),
        Text(NameOf(satellite.address), ": process ", mNodes.back()->process.Id(), ", satellite, its clock is ",
             satellite.offsetMilliseconds / 1000, " s off and drifts by ", satellite.driftPPM, " ppm"));
  }
  mNodes.push_back(std::move(masterNode));
}

template <class Predicate>
void Demo_Coordinator::TakeEventsUntil(Predicate isOver, milliseconds timeOut, const char* whatFails) {
  const auto deadline = SteadyClock::now() + timeOut;
  while (mSignal == 0 && !isOver()) {
    if (SteadyClock::now() > deadline) {
      Fail(Sys_Clock::RawMicroseconds(), Text(whatFails, " within ", timeOut.count(), " ms"));
      return;
    }
    std::vector<pollfd> descriptors = {{SignalPipe::Descriptor(), POLLIN, 0}};
    for (const auto& node : mNodes) {
      descriptors.push_back({node->process.OutputDescriptor(), POLLIN, 0}); // negative ones are ignored
    }
    poll(descriptors.data(), descriptors.size(), static_cast<int>(kPollPeriod.count()));
    mSignal = SignalPipe::Take();
    // The master is read first and heard last: what a satellite told before the master spoke of it is known by then.
    std::for_each(mNodes.rbegin(), mNodes.rend(), [](const auto& node) { node->process.ReadAvailable(); });
    for (const auto& node : mNodes) {
      while (const auto line = node->process.TakeLine()) {
        if (const auto event = Demo_Event::FromLine(*line)) {
          Take(*event, *node);
        } else {
          Fail(Sys_Clock::RawMicroseconds(), Text(NameOf(node->options.address), " says: ", *line));
        }
      }
      if (!node->isOver && node->process.OutputDescriptor() < 0 && node->process.HasEnded()) {
        TakeEnd(*node);
      }
    }
  }
}

void Demo_Coordinator::Take(const Demo_Event& event, Node& node) {
  using Kind = Demo_Event::Kind;
  const std::string name = NameOf(event.address);
  Demo_Results::Satellite* const satellite = FindSatellite(event.address);
  switch (event.kind) {
  case Kind::listening:
    mEpoch = event.value;
    Say(event.rawTime, name + ": listening");
    break;
  case Kind::linked:
    if (satellite != nullptr) {
      satellite->linkedMilliseconds = MillisecondsSinceStart(event.rawTime);
    }
    Say(event.rawTime, name + ": linked");
    break;
  case Kind::locked:
    if (satellite != nullptr) {
      satellite->lockedMilliseconds = MillisecondsSinceStart(event.rawTime);
    }
    Say(event.rawTime, name + ": clock locked");
    break;
  case Kind::unlocked:
    Say(event.rawTime, name + ": clock not locked any more");
    break;
  case Kind::settling:
    Say(event.rawTime, Text("the clocks settle for ", event.value / 1000, " ms"));
    break;
  case Kind::primed:
    Say(event.rawTime, Text("round ", event.value, ": primed"));
    break;
  case Kind::ready:
    Say(event.rawTime, name + ": ready");
    break;
  case Kind::start:
    mResults.starts.push_back({.agreedRunningTime = event.value, .late = {}});
    Say(event.rawTime, Text("start at running time ", event.value, " us"));
    break;
  case Kind::started:
    TakeStart(event);
    break;
  case Kind::roundOver:
    SayStarts(event);
    break;
  case Kind::lost:
    FindNode(node.options.IsMaster() ? event.address : node.options.address).isLost = true;
    Fail(event.rawTime, NameOf(node.options.address) + " has lost " + name + ": " + event.text);
    break;
  case Kind::failure:
    Fail(event.rawTime, NameOf(node.options.address) + ": " + event.text);
    break;
  case Kind::clock:
    TakeClock(event);
    break;
  case Kind::clockError:
    if (satellite != nullptr) {
      satellite->clockError = event.clockError;
      satellite->errorBound = event.errorBound;
    }
    break;
  case Kind::done:
    mIsDone = true;
    break;
  case Kind::unknown:
    break;
  }
}

void Demo_Coordinator::TakeClock(const Demo_Event& event) {
  nlohmann::json fields = event.clock;
  fields["address"] = NameOf(event.address);
  if (fields.contains("error_us")) {
    fields["error_us"] = fields["error_us"].get<std::int64_t>() + mEpoch;
  }
  Record("clock", event.rawTime, fields);
}

void Demo_Coordinator::TakeStart(const Demo_Event& event) {
  for (Demo_Results::Start& start : mResults.starts) {
    if (start.agreedRunningTime == event.value) {
      start.late[event.address] = event.rawTime - mEpoch - event.value;
      Record(
          "started", event.rawTime,
          {{"address", NameOf(event.address)}, {"running_time", event.value}, {"late_us", start.late[event.address]}});
    }
  }
}

void Demo_Coordinator::SayStarts(const Demo_Event& roundOver) {
  const auto& late = mResults.starts.back().late;
  std::string text =
      Text("round ", roundOver.value, ": ", late.size(), late.size() == 1 ? " system" : " systems", " started");
  if (!late.empty()) {
    text += Text(", spread ", mResults.starts.back().Spread(), " us");
  }
  if (late.size() <= kMostSystemsOnALine) {
    for (const auto& [address, value] : late) {
      text += Text(", ", NameOf(address), ' ', std::showpos, value);
    }
  }
  Say(roundOver.rawTime, text);
}

void Demo_Coordinator::TakeEnd(Node& node) {
  node.isOver = true;
  if (mIsFinishing && (node.isLost || node.process.Succeeded())) {
    return; // said already, or as it should be
  }
  Fail(Sys_Clock::RawMicroseconds(), NameOf(node.options.address) + ": process " + node.process.EndText());
}

void Demo_Coordinator::Finish() {
  mIsFinishing = true;
  const std::string finish = Demo_Finish{mEpoch}.ToLine();
  // A lost system may hang, and an interruption is not to wait for anybody.
  for (const auto& node : mNodes) {
    if (mSignal != 0 || node->isLost) {
      node->process.Kill();
    }
  }
  if (mSignal == 0) {
    const auto master = std::prev(mNodes.end());
    std::for_each(mNodes.begin(), master, [&](const auto& node) { node->process.Send(finish); });
    TakeEventsUntil([this] { return AreSatellitesOver(); }, kEndTimeOut, "not all satellites have ended");
    (*master)->process.Send(finish);
    TakeEventsUntil([&] { return (*master)->isOver; }, kEndTimeOut, "the master has not ended");
  }
  mNodes.clear(); // kills those that are left
  auto& starts = mResults.starts;
  starts.erase(std::remove_if(starts.begin(), starts.end(), [](const auto& start) { return start.late.empty(); }),
               starts.end());
  if (mResults.failures.empty() && mSignal == 0) {
    CheckCompleteness();
  }
}

void Demo_Coordinator::CheckCompleteness() {
  std::vector<std::uint32_t> addresses = {kMasterAddress};
  for (const Demo_Results::Satellite& satellite : mResults.satellites) {
    addresses.push_back(satellite.address);
    if (!satellite.clockError) {
      Fail(Sys_Clock::RawMicroseconds(), NameOf(satellite.address) + ": no figures of its clock");
    }
  }
  for (const std::uint32_t address : addresses) {
    const auto count = std::count_if(mResults.starts.begin(), mResults.starts.end(),
                                     [&](const auto& start) { return start.late.count(address) != 0; });
    if (count != mOptions.rounds) {
      Fail(Sys_Clock::RawMicroseconds(),
           Text(NameOf(address), ": started ", count, " times in place of ", mOptions.rounds));
    }
  }
}

bool Demo_Coordinator::AreSatellitesOver() const {
  return std::all_of(mNodes.begin(), std::prev(mNodes.end()), [](const auto& node) { return node->isOver; });
}

Demo_Coordinator::Node& Demo_Coordinator::FindNode(std::uint32_t address) {
  return **std::find_if(mNodes.begin(), std::prev(mNodes.end()),
                        [&](const auto& node) { return node->options.address == address; });
}

Demo_Results::Satellite* Demo_Coordinator::FindSatellite(std::uint32_t address) {
  const auto satellite = std::find_if(mResults.satellites.begin(), mResults.satellites.end(),
                                      [&](const auto& known) { return known.address == address; });
  return satellite == mResults.satellites.end() ? nullptr : &*satellite;
}

std::string Demo_Coordinator::NameOf(std::uint32_t address) { return Sys_Socket::DecodeIPAddress(address); }

double Demo_Coordinator::MillisecondsSinceStart(std::int64_t rawTime) const {
  return static_cast<double>(rawTime - mStart) / 1000;
}

void Demo_Coordinator::Record(const char* event, std::int64_t rawTime, nlohmann::json fields) {
  if (mOptions.reports) {
    fields["event"] = event;
    fields["time_us"] = rawTime;
    mReport.Take(fields);
  }
}

void Demo_Coordinator::RecordSystem(const Demo_NodeOptions& options) {
  Record("system", mStart,
         {{"address", NameOf(options.address)},
          {"name", options.name},
          {"role", options.IsMaster() ? "master" : "satellite"}});
}

void Demo_Coordinator::Say(std::int64_t rawTime, const std::string& text) {
  Record("note", rawTime, {{"text", text}});
  Print(rawTime, text);
}

void Demo_Coordinator::Print(std::int64_t rawTime, const std::string& text) {
  mOut << '[' << std::fixed << std::setprecision(3) << std::setw(8) << MillisecondsSinceStart(rawTime) / 1000 << " s] "
       << text << std::endl;
}

void Demo_Coordinator::Fail(std::int64_t rawTime, const std::string& text) {
  mResults.failures.push_back(text);
  Record("failure", rawTime, {{"text", text}});
  Print(rawTime, "FAILED: " + text);
}
