#include "tools/trel/demo/Demo_Observer.h"

#include <trel/Sys_Clock.h>
#include <trel/Sys_Socket.h>

#include <algorithm>
#include <ios>
#include <iterator>
#include <utility>

namespace {

using Json = nlohmann::json;

constexpr std::size_t kMostSystemsOnALine = 8;

std::int64_t TimeOf(const Json& event) { return event.at("time_us").get<std::int64_t>(); }

std::int64_t RunningTimeOf(const Json& event) { return event.at("running_time").get<std::int64_t>(); }

Percentiles PercentilesIn(const Json& figures) {
  return {.p50 = figures.at("p50"), .p99 = figures.at("p99"), .max = figures.at("max")};
}

} // namespace

void Demo_Observer::Take(const std::string& line, Demo_Host& host) {
  try {
    const Json event = Json::parse(line);
    const std::string kind = event.at("event");
    if (host.options.isMaster) {
      TakeFromMaster(kind, event, host);
    } else {
      TakeFromSatellite(kind, event, host);
    }
    TakeFromAny(kind, event, host);
  } catch (const Json::exception&) {
    mLog.Fail(Sys_Clock::RawMicroseconds(), host.address + " says: " + line);
  }
}

void Demo_Observer::TakeFromMaster(const std::string& kind, const Json& event, Demo_Host& master) {
  Demo_Host& host = HostOf(event);
  if (kind == "ready") {
    mEpoch = event.at("epoch_us");
    mLog.Say(TimeOf(event), master.address + ": listening");
  } else if (kind == "linked") {
    host.isLinked = true;
    host.isLost = false;
  } else if (kind == "lost" || kind == "left") {
    TakeLoss(event, master, host);
  } else if (kind == "clock") {
    host.isLocked = event.at("on");
    if (!host.isLocked) {
      mLog.Say(TimeOf(event), host.address + ": clock not locked any more");
    }
  } else if (kind == "primed") {
    mLog.Say(TimeOf(event), Demo_Log::Text("round ", mRound, ": primed"));
  } else if (kind == "transport") {
    host.transport = event.at("transport");
    if (host.transport == "primed") {
      mLog.Say(TimeOf(event), host.address + ": ready");
    }
  } else if (kind == "answer" || kind == "error") {
    ++mAnswers;
    if (event.value("command", "") == "start" && kind == "answer") {
      mTogether = nullptr;
      mResults.starts.push_back({.agreedRunningTime = RunningTimeOf(event), .late = {}});
      mLog.Say(TimeOf(event), Demo_Log::Text("start at running time ", RunningTimeOf(event), " us"));
    }
  } else if (kind == "together") {
    mTogether = event;
    TakeMissing(event);
  }
}

void Demo_Observer::TakeFromSatellite(const std::string& kind, const Json& event, Demo_Host& satellite) {
  Demo_Results::Satellite& result = ResultOf(satellite);
  if (kind == "linked") {
    if (!result.linkedMilliseconds) {
      result.linkedMilliseconds = mLog.MillisecondsSinceStart(TimeOf(event));
    }
    mLog.Say(TimeOf(event), satellite.address + ": linked");
  } else if (kind == "lost") {
    TakeLoss(event, satellite, satellite);
  } else if (kind == "clock") {
    TakeClock(event, satellite);
  } else if (kind == "answer" && event.contains("clock_error")) {
    result.clockError = PercentilesIn(event.at("clock_error"));
    result.errorBound = PercentilesIn(event.at("error_bound"));
  }
}

void Demo_Observer::TakeFromAny(const std::string& kind, const Json& event, Demo_Host& host) {
  if (kind == "started") {
    TakeBeginning(event, host);
  } else if (kind == "error" || kind == "start_failed") {
    mLog.Fail(TimeOf(event), host.address + ": " + event.value("text", kind));
  }
}

void Demo_Observer::TakeLoss(const Json& event, const Demo_Host& by, Demo_Host& lost) {
  if (lost.isLeaving) {
    return;
  }
  lost.isLost = true;
  mLog.Fail(TimeOf(event), by.address + " has lost " + HostOf(event).address + ": " + event.value("text", ""));
}

void Demo_Observer::TakeClock(const Json& event, Demo_Host& satellite) {
  if (!event.contains("state")) {
    Demo_Results::Satellite& result = ResultOf(satellite);
    if (event.value("address", "") == satellite.address && event.at("on").get<bool>() && !result.lockedMilliseconds) {
      result.lockedMilliseconds = mLog.MillisecondsSinceStart(TimeOf(event));
      mLog.Say(TimeOf(event), satellite.address + ": clock locked");
    }
    return;
  }
  Json fields = event;
  fields["address"] = satellite.address;
  if (const auto error = fields.find("error_us"); error != fields.end()) {
    *error = error->get<std::int64_t>() + mEpoch;
  }
  mLog.Record("clock", TimeOf(event), std::move(fields));
}

void Demo_Observer::TakeBeginning(const Json& event, const Demo_Host& host) {
  const std::int64_t runningTime = RunningTimeOf(event);
  for (Demo_Results::Start& start : mResults.starts) {
    if (start.agreedRunningTime == runningTime) {
      const std::int64_t late = TimeOf(event) - mEpoch - runningTime;
      start.late[host.options.address] = late;
      mLog.Record("started", TimeOf(event),
                  {{"address", host.address}, {"running_time", runningTime}, {"late_us", late}});
    }
  }
}

void Demo_Observer::TakeMissing(const Json& event) {
  for (const auto& address : event.at("missing")) {
    const auto host =
        std::find_if(mHosts.begin(), mHosts.end(), [&](const auto& known) { return known->address == address; });
    if (host != mHosts.end() && !(*host)->isLost) {
      mLog.Fail(TimeOf(event), (*host)->address + " has not reported its start");
    }
  }
}

void Demo_Observer::BeginRound(std::int32_t round) {
  mRound = round;
  for (const auto& host : mHosts) {
    host->transport.clear();
  }
}

bool Demo_Observer::IsStartOver() const {
  if (mResults.starts.empty() || mTogether.is_null()) {
    return false;
  }
  const Demo_Results::Start& start = mResults.starts.back();
  return RunningTimeOf(mTogether) == start.agreedRunningTime &&
         std::all_of(mHosts.begin(), mHosts.end(), [&](const auto& host) {
           return host->isOver || !mTogether.at("late_us").contains(host->address) ||
                  start.late.contains(host->options.address);
         });
}

void Demo_Observer::SayStart() {
  const auto& late = mResults.starts.back().late;
  std::string text =
      Demo_Log::Text("round ", mRound, ": ", late.size(), late.size() == 1 ? " system" : " systems", " started");
  if (!late.empty()) {
    text += Demo_Log::Text(", spread ", mResults.starts.back().Spread(), " us");
  }
  if (late.size() <= kMostSystemsOnALine) {
    for (const auto& [address, value] : late) {
      text += Demo_Log::Text(", ", Sys_Socket::DecodeIPAddress(address), ' ', std::showpos, value);
    }
  }
  mLog.Say(Sys_Clock::RawMicroseconds(), text);
}

Demo_Host& Demo_Observer::HostOf(const Json& event) {
  const std::string address = event.value("address", "");
  return **std::find_if(mHosts.begin(), std::prev(mHosts.end()),
                        [&](const auto& host) { return host->address == address; });
}

Demo_Results::Satellite& Demo_Observer::ResultOf(const Demo_Host& satellite) {
  return *std::find_if(mResults.satellites.begin(), mResults.satellites.end(),
                       [&](const auto& result) { return result.address == satellite.options.address; });
}
