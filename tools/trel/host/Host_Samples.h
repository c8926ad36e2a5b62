#pragma once

#include <cstdint>
#include <map>
#include <stop_token>
#include <thread>

class Host_Events;
class Host_Session;

/// Tells what recordings have besides, as samples: the round trips that the master measures when it keeps the clocks of
/// the others, and the clock of a satellite four times a second.
class Host_Samples {
public:
  Host_Samples(const Host_Session& session, Host_Events& events);

private:
  void Run(const std::stop_token& stop);
  void TellRoundTrips();
  void TellClock();

  const Host_Session& mSession;
  Host_Events& mEvents;
  std::map<std::uint32_t, std::int64_t> mVouched; // by address: how many there were
  std::jthread mThread;                           // the last member: it uses the others
};
