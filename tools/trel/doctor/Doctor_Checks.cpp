#include "tools/trel/doctor/Doctor_Checks.h"

#include "tools/trel/common/Percentiles.h"
#include "tools/trel/common/Texts.h"
#include "tools/trel/doctor/Doctor_Findings.h"
#include "tools/trel/doctor/PortOwner.h"
#include "tools/trel/doctor/Survey.h"

#include <trel/Sys_Clock.h>
#include <trel/Sys_UDPSocket.h>
#include <trel/TCPE_CommManager.h>
#include <trel/Trel_CommManager.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <limits>
#include <sstream>
#include <string_view>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::int64_t kBroadcastTimeOut = 500'000; // microseconds
constexpr int kConnectTimeOut = 2000;               // milliseconds
constexpr int kWaits = 100;
constexpr std::int64_t kWait = 3000;                // microseconds; longer than the spin before its end
constexpr std::int64_t kLatenessWorthTelling = 200; // microseconds, of 99 waits of 100
constexpr std::int64_t kLatenessTooMuch = 2000;
constexpr std::int64_t kCoarsestClock = 10; // microseconds

/// How a connection attempt ended: 0, or the number of the error.
int TryConnect(std::uint32_t from, std::uint32_t to, std::uint16_t port) {
  const int socketNumber = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (socketNumber < 0) {
    return errno;
  }
  sockaddr_in name{};
  name.sin_family = AF_INET;
  auto* const generic = reinterpret_cast<sockaddr*>(&name);
  name.sin_addr.s_addr = htonl(from);
  int error = bind(socketNumber, generic, sizeof name) == 0 ? 0 : errno;
  name.sin_addr.s_addr = htonl(to);
  name.sin_port = htons(port);
  if (error == 0 && connect(socketNumber, generic, sizeof name) != 0) {
    error = errno;
    pollfd descriptor = {socketNumber, POLLOUT, 0};
    if (error == EINPROGRESS) {
      socklen_t size = sizeof error;
      error = ETIMEDOUT;
      if (poll(&descriptor, 1, kConnectTimeOut) == 1) {
        getsockopt(socketNumber, SOL_SOCKET, SO_ERROR, &error, &size);
      }
    }
  }
  close(socketNumber);
  return error;
}

std::string TextOf(const Sys_Adaptor& adaptor) {
  return Sys_Socket::DecodeIPAddress(adaptor.address) + " (" + adaptor.name + ")";
}

} // namespace

Doctor_Checks::Doctor_Checks(const EngineOptions& options, Doctor_Findings& findings)
    : mOptions(options), mPort(options.port), mFindings(findings) {}

void Doctor_Checks::Run() {
  const auto adaptor = CheckAdaptors();
  if (adaptor) {
    mOptions.OnlyAsk();
    const std::string failure = mOptions.Start(nullptr); // from then on the engine knows the discovery port
    CheckPorts(adaptor->address);
    CheckBroadcast(*adaptor);
    if (!failure.empty()) {
      mFindings.Problem("engine", failure, "");
    } else {
      CheckSecret();
      CheckSystems();
      Trel_CommManager::Terminate();
      CheckOtherNumbering();
    }
  }
  CheckClock();
  CheckLoad();
}

std::optional<Sys_Adaptor> Doctor_Checks::CheckAdaptors() {
  const std::vector<Sys_Adaptor> adaptors = Sys_Socket::GetAdaptors();
  std::vector<Sys_Adaptor> candidates;
  std::optional<Sys_Adaptor> loopback;
  std::string all;
  for (const Sys_Adaptor& adaptor : adaptors) {
    const bool isUsable = adaptor.isUp && (mOptions.address != 0 ? adaptor.Has(mOptions.address)
                                                                 : adaptor.canBroadcast && !adaptor.isLoopback);
    if (isUsable) {
      candidates.push_back(adaptor);
    }
    if (adaptor.isLoopback && adaptor.isUp) {
      loopback = adaptor;
    }
    if (!adaptor.isUp) {
      mFindings.Notice("adaptor", TextOf(adaptor) + " is down", "Plug in its cable, or turn it on, if it is meant.");
    }
    all += (all.empty() ? "" : ", ") + TextOf(adaptor);
  }
  if (candidates.empty() && mOptions.address != 0) {
    mFindings.Problem("adaptor",
                      "no adaptor that is up has the address " + Sys_Socket::DecodeIPAddress(mOptions.address),
                      "Give one of these with --address: " + (all.empty() ? "none" : all));
    return std::nullopt;
  }
  if (candidates.empty()) {
    mFindings.Problem("adaptor", "no network adaptor is up; systems on other machines cannot be reached",
                      "Plug in a network cable, or turn an adaptor on.");
    return loopback;
  }
  Sys_Adaptor chosen = candidates.front();
  if (mOptions.address != 0) {
    chosen.address = mOptions.address; // loopback has more than one
  }
  if (candidates.size() > 1) {
    std::string others;
    std::for_each(candidates.begin() + 1, candidates.end(),
                  [&others](const Sys_Adaptor& other) { others += (others.empty() ? "" : ", ") + TextOf(other); });
    mFindings.Notice("adaptor", "a host uses " + TextOf(chosen) + " here; " + others + " could be used too",
                     "Give the address that is meant with --address if this is not the studio's network.");
  } else {
    mFindings.Well("adaptor", "a host uses " + TextOf(chosen) + " here");
  }
  if (!chosen.canBroadcast) {
    mFindings.Problem("adaptor", TextOf(chosen) + " cannot broadcast, so systems do not find each other",
                      "Use an Ethernet adaptor, or name the master to each satellite with --connect ADDRESS.");
  }
  return chosen;
}

void Doctor_Checks::CheckPorts(std::uint32_t address) {
  const auto discoveryPort = static_cast<std::uint16_t>(Trel_CommManager::GetDiscoveryPort());
  const auto communication = PortOwner::OfTCP(address, mPort);
  const auto discovery = PortOwner::OfUDP(address, discoveryPort);
  const std::string communicationText = "communication port " + std::to_string(mPort) + " (TCP)";
  if (!communication) {
    mFindings.Well("ports", communicationText + " is free");
  } else if (discovery && communication->process == discovery->process) {
    // One program with both ports is a host of the link.
    mFindings.Well("ports", communicationText + " and discovery port " + std::to_string(discoveryPort) +
                                " (UDP) are used by a host that runs here: " + communication->Text());
    return;
  } else {
    mFindings.Problem("ports", communicationText + " is in use by " + communication->Text(),
                      "End that program, or have all systems use another port (--port).");
  }
  const std::string discoveryText = "discovery port " + std::to_string(discoveryPort) + " (UDP)";
  if (discovery) {
    mFindings.Notice("ports", discoveryText + " is in use by " + discovery->Text(),
                     "If that is no host of the link, end it, or have all systems use another port "
                     "(--discovery-port).");
  } else {
    mFindings.Well("ports", discoveryText + " is free");
  }
}

void Doctor_Checks::CheckBroadcast(const Sys_Adaptor& adaptor) {
  if (!adaptor.canBroadcast && !adaptor.isLoopback) {
    return;
  }
  constexpr std::string_view kText = "trel doctor";
  Sys_UDPSocket ear;
  Sys_UDPSocket mouth;
  std::array<std::byte, 64> buffer = {};
  std::size_t size = 0;
  const bool isHeard = ear.Register() && ear.Bind(0, 0) && ear.AllocateReplyAddress() && mouth.Register() &&
                       mouth.Bind(adaptor.address, 0) &&
                       mouth.Send(std::as_bytes(std::span(kText)), adaptor.broadcast, ear.GetPort()) &&
                       ear.Receive(buffer, kBroadcastTimeOut, &size) == Sys_UDPSocket::Result::received;
  const std::string target = Sys_Socket::DecodeIPAddress(adaptor.broadcast);
  if (isHeard) {
    mFindings.Well("broadcast", "a broadcast to " + target + " comes back");
  } else {
    mFindings.Problem("broadcast", "a broadcast to " + target + " does not even reach this machine itself",
                      "A firewall stops it, most likely: have it let UDP through on " + adaptor.name + ".");
  }
}

void Doctor_Checks::CheckSecret() {
  const TCPE_EngineSnapshot engine = Trel_CommManager::GetSnapshot();
  if (engine.isSecretMadeUp) {
    mFindings.Notice("secret",
                     "the shared secret is one that people made up: whoever has recorded a single query of a system "
                     "can guess it, and then be any system of the link",
                     "Make one with trel secret, and give it to all systems.");
  }
  if (engine.secrets > 1) {
    mFindings.Notice("secret", "two shared secrets are accepted",
                     "When all systems have the new one first in their secret files, take the old one out of them and "
                     "start them again.");
  }
}

void Doctor_Checks::CheckSystems() {
  const Survey::Systems masters = Survey::Masters();
  Survey::Systems systems = masters;
  systems.merge(Survey::Satellites());
  const TCPE_Counters counters = Trel_CommManager::GetSnapshot().counters;
  if (counters.unauthenticDatagrams != 0) {
    mFindings.Problem("secret", "a system answers that has another shared secret, or none while this one has one",
                      mOptions.HasSecret() ? "Give all systems the same secret file; see trel secret."
                                           : "Give its secret file with --secret-file.");
  }
  if (counters.otherNumberingDatagrams != 0) {
    mFindings.Problem("numbering", "a system answers that uses the other command numbering",
                      "Run all systems with --legacy, or none.");
  }
  if (counters.malformedDatagrams != 0) {
    mFindings.Notice("discovery", std::to_string(counters.malformedDatagrams) + " messages came that make no sense",
                     "Another program may use the discovery port; have all systems use another one.");
  }
  if (systems.empty()) {
    mFindings.Problem("systems", "nobody answers: this machine hears no other system",
                      "Check that a host runs on the others, that they are on the same network and use the discovery "
                      "port " +
                          std::to_string(Trel_CommManager::GetDiscoveryPort()) +
                          ", and that their firewalls let UDP through. " +
                          (mOptions.HasSecret() ? "Systems without this secret do not answer."
                                                : "Systems that share a secret answer only with --secret-file."));
    return;
  }
  if (masters.size() > 1) {
    mFindings.Notice("systems", "there are " + std::to_string(masters.size()) + " masters",
                     "Satellites that search choose one of them; name the one that is meant with --connect ADDRESS.");
  }
  for (const auto& [system, isAvailable] : systems) {
    CheckConnection(std::string(RoleText(system.GetSystemType())) + " " + system.GetSystemName() + " at " +
                        Sys_Socket::DecodeIPAddress(system.GetIPAddress()),
                    system.GetIPAddress());
  }
}

void Doctor_Checks::CheckOtherNumbering() {
  // Systems answer only who asks in their own numbering.
  const bool isCurrent = Trel_CommManager::GetSupportsMarlo11();
  TCPE_CommManager::SetSupportsMarlo11(!isCurrent);
  if (mOptions.Start(nullptr).empty()) {
    Survey::Systems systems = Survey::Masters();
    systems.merge(Survey::Satellites());
    for (const auto& [system, isAvailable] : systems) {
      mFindings.Problem("numbering",
                        std::string(RoleText(system.GetSystemType())) + " " + system.GetSystemName() + " at " +
                            Sys_Socket::DecodeIPAddress(system.GetIPAddress()) + " uses the " +
                            (isCurrent ? "legacy" : "current") + " command numbering, this system the " +
                            (isCurrent ? "current" : "legacy") + " one",
                        "Run all systems with --legacy, or none: others do not link.");
    }
    Trel_CommManager::Terminate();
  }
  TCPE_CommManager::SetSupportsMarlo11(isCurrent);
}

void Doctor_Checks::CheckConnection(const std::string& name, std::uint32_t address) {
  const std::string port = std::to_string(mPort);
  switch (const int error = TryConnect(Trel_CommManager::GetAdaptorIPAddress(), address, mPort)) {
  case 0:
    mFindings.Well("systems", name + " answers and can be connected to");
    break;
  case ECONNREFUSED:
    mFindings.Problem("systems", name + " answers, but the connection to its port " + port + " is refused",
                      "It uses another communication port, or a firewall there refuses TCP: use the same --port on all "
                      "systems, and open the port.");
    break;
  case ETIMEDOUT:
    mFindings.Problem("systems", name + " answers, but nothing comes back from its port " + port,
                      "A firewall there drops TCP, most likely: have it let the port through.");
    break;
  default:
    mFindings.Problem("systems", name + " answers, but cannot be connected to: " + strerror(error),
                      "Check the addresses and netmasks of both systems.");
  }
}

void Doctor_Checks::CheckClock() {
  std::int64_t resolution = std::numeric_limits<std::int64_t>::max();
  std::int64_t before = Sys_Clock::RawMicroseconds();
  for (int steps = 0; steps < kWaits;) {
    const std::int64_t now = Sys_Clock::RawMicroseconds();
    if (now != before) {
      resolution = std::min(resolution, now - before);
      before = now;
      ++steps;
    }
  }
  if (resolution > kCoarsestClock) {
    mFindings.Problem("clock", "the clock of this machine advances in steps of " + std::to_string(resolution) + " us",
                      "Choose a better clock source in the operating system; virtual machines often have a poor one.");
  } else {
    mFindings.Well("clock", "the clock advances in steps of " + std::to_string(resolution) + " us");
  }

  std::vector<std::int64_t> late;
  for (int wait = 0; wait < kWaits; ++wait) {
    const std::int64_t end = Sys_Clock::Microseconds() + kWait;
    Sys_Clock::WaitUntil(end);
    late.push_back(Sys_Clock::Microseconds() - end);
  }
  const Percentiles figures = PercentilesOf(late);
  const std::string text = "a timer of this machine is late by " + std::to_string(figures.p50) + " us mostly, " +
                           std::to_string(figures.p99) + " us in 1 of 100, " + std::to_string(figures.max) +
                           " us at the worst";
  const std::string advice = "End programs that take processor time, choose the performance setting of the processor, "
                             "or give the host a higher priority.";
  if (figures.p99 > kLatenessTooMuch) {
    mFindings.Problem("timer", text, advice);
  } else if (figures.p99 > kLatenessWorthTelling) {
    mFindings.Notice("timer", text, advice);
  } else {
    mFindings.Well("timer", text);
  }
}

void Doctor_Checks::CheckLoad() {
  double load = 0;
  const unsigned processors = std::max(1U, std::thread::hardware_concurrency());
  if (getloadavg(&load, 1) == 1) {
    std::ostringstream text;
    text << "on average " << std::fixed << std::setprecision(1) << load
         << " programs wanted to run in the last minute, on " << processors
         << (processors == 1 ? " processor" : " processors");
    if (load > processors) {
      mFindings.Notice("load", text.str(),
                       "Starts may be late while the machine is this busy: end what is not needed.");
    } else {
      mFindings.Well("load", text.str());
    }
  }
  std::string governor;
  if (std::ifstream("/sys/devices/system/cpu/cpu0/cpufreq/scaling_governor") >> governor && governor == "powersave") {
    mFindings.Notice("load", "the processor saves power, so it wakes up late",
                     "Choose the performance setting for the time of the session.");
  }
}
