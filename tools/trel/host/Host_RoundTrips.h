#pragma once

#include <cstdint>
#include <map>
#include <stop_token>
#include <thread>

class Host_Events;
class Host_Session;

/// Tells, as samples, the round trips that the master measures when it keeps the clocks of the others.
class Host_RoundTrips {
public:
  Host_RoundTrips(const Host_Session& session, Host_Events& events);

private:
  void Run(const std::stop_token& stop);
  void Tell();

  const Host_Session& mSession;
  Host_Events& mEvents;
  std::map<std::uint32_t, std::int64_t> mVouched; // by address: how many there were
  std::jthread mThread;                           // the last member: it uses the others
};
