#include "tools/trel/host/Host_Throttle.h"

#include <trel/Cmn_Printable.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace {

constexpr std::int64_t kSecond = 1'000'000;

Host_Event LeftOut(const std::string& address, const std::string& name, std::int64_t count) {
  const std::string who = name.empty() ? address : Cmn_Printable(name) + " (" + address + ")";
  Host_Event event = {.kind = Host_Throttle::kLeftOut,
                      .text = std::to_string(count) + " messages about " + who + " were left out: it sends too many",
                      .fields = {{"address", address}, {"count", count}}};
  if (!name.empty()) {
    event.fields["name"] = name;
  }
  return event;
}

} // namespace

void Host_Throttle::Take(const Host_Event& event, std::int64_t now, Events& told) {
  Release(now, told);
  const auto address = event.fields.find("address");
  if (event.isAnswer || event.isSample || address == event.fields.end() || !address->is_string()) {
    told.push_back(event);
    return;
  }
  const auto [found, isNew] = mSystems.try_emplace(address->get<std::string>(), System{.end = now + kSecond});
  System& system = found->second;
  mNext = std::min(mNext, system.end);
  if (system.told < kMostOfOneSystem) {
    ++system.told;
    told.push_back(event);
    return;
  }
  system.name = event.fields.value("name", "");
  if (event.kind == kLeftOut) {
    system.leftOut += event.fields.value("count", std::int64_t{0});
    return;
  }
  system.leftOut += static_cast<std::int64_t>(
      std::erase_if(system.newest, [&event](const Host_Event& before) { return before.kind == event.kind; }));
  system.newest.push_back(event);
}

void Host_Throttle::Release(std::int64_t now, Events& told) {
  if (now < mNext) {
    return;
  }
  mNext = kNever;
  for (auto next = mSystems.begin(); next != mSystems.end();) {
    const auto entry = next++;
    System& system = entry->second;
    if (now >= system.end && system.newest.empty() && system.leftOut == 0) {
      mSystems.erase(entry);
      continue;
    }
    if (now >= system.end) {
      TellNewest(entry->first, system, told);
      system = {.end = now < kNever - kSecond ? now + kSecond : kNever, .told = system.newest.size() + 1};
    }
    mNext = std::min(mNext, system.end);
  }
}

void Host_Throttle::TellNewest(const std::string& address, System& system, Events& told) {
  std::move(system.newest.begin(), system.newest.end(), std::back_inserter(told));
  if (system.leftOut != 0) {
    told.push_back(LeftOut(address, system.name, system.leftOut));
  }
}
