// One command to 64 processes, beside a raw loop of sends of the same bytes to the same processes: alternating rounds,
// the ratio of each pair, medians. Measured is how long the sender is busy, and when the last process has got it.

#include "bench_support.h"

#include <array>
#include <atomic>
#include <chrono>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr std::uint32_t kHere = 0x7f000056;       // 127.0.0.86
constexpr std::uint32_t kFirstThere = 0x7f000101; // 127.0.1.1
constexpr std::uint32_t kProcesses = 64;
constexpr std::uint16_t kPort = 28486;
constexpr std::uint16_t kRawPort = 28487;
constexpr std::size_t kBytes = 28; // TestRunningTime: header and one 64-bit time
constexpr int kRounds = 1001;

struct Received {
  std::atomic<std::uint32_t> commands = 0;
  std::atomic<std::uint32_t> messages = 0;
  std::atomic<std::uint32_t> ready = 0;
};
Received& received = bench::Shared<Received>();

[[noreturn]] void RunPeer(std::uint32_t address) {
  const int listener = bench::ListenAt(address, kRawPort);
  Trel_Command::SetDoItCommand(Trel_Cmd_TestRunningTime::GetCommandID(), [](TCPE_Command*) { ++received.commands; });
  bench::StartEngine(address, kPort);
  ++received.ready;
  const int raw = accept(listener, nullptr, nullptr);
  std::array<char, kBytes> message{};
  while (bench::ReadWhole(raw, message.data(), kBytes)) {
    ++received.messages;
  }
  std::_Exit(EXIT_SUCCESS); // the other process is gone
}

struct Times {
  double busy;
  double all; ///< until the last one has got it
};

template <class SendToAll>
Times Measure(std::atomic<std::uint32_t>& arrived, SendToAll sendToAll) {
  using Microseconds = std::chrono::duration<double, std::micro>;
  arrived = 0;
  usleep(500); // more than a burst takes
  const auto begin = std::chrono::steady_clock::now();
  sendToAll();
  const Microseconds busy = std::chrono::steady_clock::now() - begin;
  while (arrived < kProcesses) {
    sched_yield();
  }
  return {busy.count(), Microseconds(std::chrono::steady_clock::now() - begin).count()};
}

} // namespace

int main() {
  std::vector<pid_t> peers;
  for (std::uint32_t i = 0; i < kProcesses; ++i) {
    peers.push_back(fork());
    if (peers.back() == 0) {
      RunPeer(kFirstThere + i);
    }
  }
  while (received.ready < kProcesses) {
    usleep(1000);
  }
  bench::StartEngine(kHere, kPort);
  std::vector<std::uint32_t> addresses;
  std::vector<int> sockets;
  for (std::uint32_t address = kFirstThere; address < kFirstThere + kProcesses; ++address) {
    addresses.push_back(address);
    sockets.push_back(bench::ConnectTo(address, kRawPort));
    if (!Trel_CommManager::Connect(address)) {
      std::fprintf(stderr, "%s does not answer\n", Sys_Socket::DecodeIPAddress(address).c_str());
      return EXIT_FAILURE;
    }
  }
  bool hasFailed = false;
  const auto sendRaw = [&] {
    const std::array<char, kBytes> message{};
    for (const int socket : sockets) {
      hasFailed = send(socket, message.data(), kBytes, 0) != static_cast<ssize_t>(kBytes) || hasFailed;
    }
  };
  const auto sendCommand = [&] {
    Trel_Cmd_TestRunningTime command(0);
    for (const TCPE_CommErr error : Trel_CommManager::SendCommandToAll(&command, addresses)) {
      hasFailed = hasFailed || error != eTCPE_CommErr_None;
    }
  };
  std::array<std::vector<double>, 6> figures;
  for (int round = -10; round < kRounds; ++round) {
    const Times raw = Measure(received.messages, sendRaw);
    const Times command = Measure(received.commands, sendCommand);
    const std::array<double, 6> round6{
        raw.busy, raw.all, command.busy, command.all, command.busy / raw.busy, command.all / raw.all};
    for (std::size_t i = 0; round >= 0 && i < figures.size(); ++i) {
      figures[i].push_back(round6[i]);
    }
  }
  for (const int socket : sockets) {
    close(socket);
  }
  Trel_CommManager::Terminate();
  for (const pid_t peer : peers) {
    waitpid(peer, nullptr, 0);
  }
  std::printf("%d rounds, one command of %zu bytes to %u processes; medians, us\n", kRounds, kBytes, kProcesses);
  std::printf("the sender is busy: raw %7.1f   command %7.1f   median of ratios %5.2f. Mark: 1.15\n",
              bench::Median(figures[0]), bench::Median(figures[2]), bench::Median(figures[4]));
  std::printf("all have got it:    raw %7.1f   command %7.1f   median of ratios %5.2f\n", bench::Median(figures[1]),
              bench::Median(figures[3]), bench::Median(figures[5]));
  return hasFailed ? EXIT_FAILURE : EXIT_SUCCESS;
}
