#include "tools/trel/watch/Watch_Session.h"

#include "tools/trel/common/DurationText.h"
#include "tools/trel/common/ExitStatus.h"
#include "tools/trel/common/JsonLine.h"
#include "tools/trel/common/Status_Client.h"
#include "tools/trel/common/Status_Directory.h"
#include "tools/trel/watch/Watch_Screen.h"
#include "tools/trel/watch/Watch_Terminal.h"

#include <trel/Cmn_Printable.h>
#include <trel/Sys_Clock.h>
#include <trel/Sys_Socket.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <utility>
#include <vector>

#include <poll.h>
#include <unistd.h>

namespace {

using Json = nlohmann::ordered_json;

constexpr int kAnswerTimeOut = 1000;                   // milliseconds
constexpr std::int64_t kLongSilenceOfHost = 1'500'000; // microseconds; a host tells something four times a second
constexpr std::int64_t kScreenPeriod = 250'000;
constexpr std::int64_t kUsualPeriod = 1'000'000;
constexpr std::size_t kLineWidth = 110; // of lines that are written to no terminal

/// Nothing when it makes no sense.
bool Parse(const std::string& line, Status_Snapshot* snapshot) {
  const Json json = Json::parse(line, nullptr, false);
  if (json.is_object()) {
    *snapshot = Status_Snapshot::FromJson(json);
  }
  return json.is_object();
}

std::string HostText(const Status_Snapshot& snapshot) {
  return Cmn_Printable(snapshot.name) + ", " + snapshot.role + " at " + snapshot.address + " (trel " +
         snapshot.program + ", process " + std::to_string(snapshot.process) + ")";
}

std::string TimeText() {
  const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  std::tm time = {};
  localtime_r(&now, &time);
  std::ostringstream text;
  text << std::put_time(&time, "%Y-%m-%dT%H:%M:%S%z");
  return text.str();
}

} // namespace

Watch_Session::Watch_Session(const Options& options) : mOptions(options) {}

Watch_Session::~Watch_Session() = default;

int Watch_Session::Run() {
  if (!Choose()) {
    return kExitFailure;
  }
  if (mOptions.once) {
    Show();
    return kExitSuccess;
  }
  if (!mOptions.json && mOptions.interval == 0.0 && Watch_Terminal::IsThere()) {
    mTerminal = std::make_unique<Watch_Terminal>();
  }
  return Follow();
}

bool Watch_Session::Choose() {
  const std::string address = mOptions.address != 0 ? Sys_Socket::DecodeIPAddress(mOptions.address) : std::string();
  std::vector<std::string> silent;
  std::vector<Status_Snapshot> others;
  std::vector<Status_Snapshot> meant;
  std::string trouble;
  for (const std::string& path : Status_Directory::Sockets(&trouble)) {
    auto client = std::make_unique<Status_Client>(path);
    std::string line;
    Status_Snapshot snapshot;
    if (!client->Connect() || client->WaitFor(&line, kAnswerTimeOut) != Status_Client::Outcome::line ||
        !Parse(line, &snapshot)) {
      silent.push_back(path);
    } else if ((!address.empty() && snapshot.address != address) ||
               (mOptions.process != 0 && snapshot.process != mOptions.process)) {
      others.push_back(std::move(snapshot));
    } else {
      mClient = std::move(client);
      meant.push_back(std::move(snapshot));
    }
  }
  if (meant.size() == 1) {
    mSnapshot = std::move(meant.front());
    mLastHeard = Sys_Clock::RawMicroseconds();
    return true;
  }
  if (std::string whole; meant.empty() && Status_Directory::Make(&whole).empty()) {
    trouble = whole; // no host can be looked into
  }
  if (meant.empty() && others.empty() && !trouble.empty()) {
    std::cerr << "trel: cannot look whether a host runs: " << Cmn_Printable(trouble) << '\n';
  } else if (meant.empty()) {
    std::cerr << (others.empty()
                      ? "trel: no host runs on this machine as this user. Start one with trel host; a host of another "
                        "user can only be watched by that user.\n"
                      : "trel: no host has this address or process. There are:\n");
  } else {
    std::cerr << "trel: several hosts run on this machine; choose one with --address or --pid:\n";
    others = std::move(meant);
  }
  for (const Status_Snapshot& other : others) {
    std::cerr << "  " << HostText(other) << '\n';
  }
  for (const std::string& path : silent) {
    std::cerr << "  one that does not answer, or is watched by too many already: " << path << '\n';
  }
  return false;
}

int Watch_Session::Follow() {
  const auto interval = static_cast<std::int64_t>(mOptions.interval * 1e6);
  const std::int64_t period = mTerminal ? kScreenPeriod : interval != 0 ? interval : kUsualPeriod;
  std::int64_t next = 0; // raw time
  for (;;) {
    const std::int64_t now = Sys_Clock::RawMicroseconds();
    if (now >= next) {
      Show();
      next = now + period;
    }
    if (!std::cout) {
      return kExitFailure; // which has been said
    }
    std::array<pollfd, 3> descriptors = {{{SignalPipe::Descriptor(), POLLIN, 0},
                                          {mClient->Descriptor(), POLLIN, 0},
                                          {mTerminal ? mTerminal->Keys() : -1, POLLIN, 0}}};
    poll(descriptors.data(), descriptors.size(), static_cast<int>(std::max<std::int64_t>(next - now, 0) / 1000 + 1));
    if (const int signal = SignalPipe::Take(); signal != 0) {
      return signal == SIGINT ? kExitSuccess : kExitSignalled + signal;
    }
    if (mTerminal && mTerminal->HasQuit()) {
      return kExitSuccess;
    }
    if (!Take()) {
      mTerminal.reset();
      std::cerr << "trel: the host has ended: " << HostText(mSnapshot) << '\n';
      return kExitFailure;
    }
  }
}

bool Watch_Session::Take() {
  std::string line;
  const std::int64_t now = Sys_Clock::RawMicroseconds();
  switch (mClient->Read(&line)) {
  case Status_Client::Outcome::line:
    if (Parse(line, &mSnapshot)) {
      mLastHeard = now;
      mHasHeardConnection = true;
    }
    return true;
  case Status_Client::Outcome::timedOut:
    if (now - mLastHeard > kLongSilenceOfHost) {
      mSnapshot.sync = Status_Sync::no;
      mSnapshot.verdict = "THE HOST DOES NOT ANSWER";
      mSnapshot.why = "it has told nothing for " + DurationText(now - mLastHeard) + "; what follows is from then";
    }
    return true;
  case Status_Client::Outcome::ended:
    break;
  }
  // It sends away who has not read for long, as after a pause of this process.
  return std::exchange(mHasHeardConnection, false) && mClient->Connect();
}

void Watch_Session::Show() {
  if (mOptions.json) {
    Json json = {{"time", TimeText()}};
    json.update(mSnapshot.ToJson());
    std::cout << JsonLine(json) << '\n' << std::flush;
    return;
  }
  Watch_Screen::Layout layout;
  layout.hasColours = Watch_Terminal::HasColours();
  if (mTerminal) {
    layout.width = Watch_Terminal::Width();
    layout.height = Watch_Terminal::Height();
    layout.hint = "q ends";
    mTerminal->Show(Watch_Screen::Lines(mSnapshot, layout));
    return;
  }
  layout.width = Watch_Terminal::IsThere() ? Watch_Terminal::Width() : kLineWidth;
  if (!mOptions.once) {
    std::cout << "--- " << TimeText() << '\n';
  }
  for (const std::string& line : Watch_Screen::Lines(mSnapshot, layout)) {
    std::cout << line << '\n';
  }
  std::cout << std::flush;
}
