#include "tools/trel/host/Host_Samples.h"

#include "tools/trel/common/ClockFields.h"
#include "tools/trel/host/Host_Events.h"
#include "tools/trel/host/Host_Session.h"

#include <trel/Sys_Socket.h>
#include <trel/Trel_CorrelatedClockMgr.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <utility>

namespace {

constexpr std::chrono::milliseconds kRoundTripPeriod{50}; // shorter than between two exchanges that are vouched for
constexpr std::chrono::milliseconds kClockPeriod{250};

} // namespace

Host_Samples::Host_Samples(const Host_Session& session, Host_Events& events)
    : mSession(session), mEvents(events), mThread([this](const std::stop_token& stop) { Run(stop); }) {}

void Host_Samples::Run(const std::stop_token& stop) {
  std::mutex mutex;
  std::condition_variable_any never;
  std::unique_lock lock(mutex);
  do {
    if (mSession.IsMaster()) {
      TellRoundTrips();
    } else {
      TellClock();
    }
  } while (!never.wait_for(lock, stop, mSession.IsMaster() ? kRoundTripPeriod : kClockPeriod,
                           [&stop] { return stop.stop_requested(); }));
}

void Host_Samples::TellRoundTrips() {
  const std::set<std::uint32_t> linked = mSession->GetLinkedAddresses();
  std::erase_if(mVouched, [&linked](const auto& known) { return !linked.contains(known.first); });
  for (const std::uint32_t address : linked) {
    const auto status = mSession->GetExchangeStatus(address);
    if (status && std::exchange(mVouched[address], status->vouched) < status->vouched) {
      mEvents.Tell({.kind = "round_trip",
                    .fields = {{"address", Sys_Socket::DecodeIPAddress(address)},
                               {"round_trip_us", status->lastVouchedRoundTrip}},
                    .isSample = true});
    }
  }
}

void Host_Samples::TellClock() {
  mEvents.Tell({.kind = "clock", .fields = ClockFields(Trel_CorrelatedClockMgr::GetStatus()), .isSample = true});
}
