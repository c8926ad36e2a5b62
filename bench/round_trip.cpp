// A synchronous command that the peer answers on its network thread, beside a raw blocking TCP ping-pong of the same
// sizes between the same two processes: alternating rounds, the ratio of each pair, the median of the ratios.
//
// Where the scheduler puts the processes changes both figures tenfold, so each placement is measured by itself: the two
// on a core each, as systems on machines of their own would be, and both on one core, where a wake-up is a mere switch.

#include "bench_support.h"

#include <array>
#include <chrono>

#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr std::uint32_t kHere = 0x7f000052;  // 127.0.0.82
constexpr std::uint32_t kThere = 0x7f000053; // 127.0.0.83
constexpr std::uint16_t kPort = 28482;
constexpr std::uint16_t kRawPort = 28483;
constexpr std::size_t kCommandBytes = 28; // UpdateRunningTime: header and one 64-bit time
constexpr std::size_t kReplyBytes = 20;
constexpr int kRounds = 21;
constexpr int kTripsPerRound = 2000;

/// The peer: an engine, and a thread that answers raw messages until the other process is gone.
[[noreturn]] void RunPeer(int ready) {
  const int listener = bench::ListenAt(kThere, kRawPort);
  bench::StartEngine(kThere, kPort);
  if (write(ready, "r", 1) != 1) {
    bench::Fail("pipe");
  }
  const int raw = accept(listener, nullptr, nullptr);
  bench::WithoutDelay(raw);
  std::array<char, kCommandBytes> message{};
  while (bench::ReadWhole(raw, message.data(), kCommandBytes)) {
    if (send(raw, message.data(), kReplyBytes, 0) != static_cast<ssize_t>(kReplyBytes)) {
      break;
    }
  }
  Trel_CommManager::Terminate();
  std::exit(EXIT_SUCCESS);
}

template <class Trip>
double MedianMicroseconds(Trip trip) {
  std::vector<double> times(kTripsPerRound);
  for (double& time : times) {
    const auto begin = std::chrono::steady_clock::now();
    trip();
    time = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count();
  }
  const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
  std::nth_element(times.begin(), middle, times.end());
  return *middle;
}

int Measure(const char* placement, int ownCore, int peerCore) {
  std::array<int, 2> ready{};
  if (pipe(ready.data()) != 0) {
    bench::Fail("pipe");
  }
  const pid_t peer = fork();
  if (peer == 0) {
    bench::RunOn(peerCore);
    RunPeer(ready[1]);
  }
  bench::RunOn(ownCore);
  char word = 0;
  if (peer < 0 || read(ready[0], &word, 1) != 1) {
    bench::Fail("peer");
  }
  const int raw = bench::ConnectTo(kThere, kRawPort);
  bench::StartEngine(kHere, kPort);
  if (!Trel_CommManager::Connect(kThere)) {
    std::fprintf(stderr, "the peer does not answer\n");
    return EXIT_FAILURE;
  }

  int failures = 0;
  const auto rawTrip = [&] {
    std::array<char, kCommandBytes> message{};
    failures += send(raw, message.data(), kCommandBytes, 0) != static_cast<ssize_t>(kCommandBytes) ||
                !bench::ReadWhole(raw, message.data(), kReplyBytes);
  };
  const auto commandTrip = [&] {
    Trel_Cmd_UpdateRunningTime command(0);
    command.SetIPAddressTo(kThere);
    Trel_CommManager::SendCommand(&command);
    failures += command.GetError() != eTCPE_CommErr_None;
  };
  MedianMicroseconds(rawTrip);
  MedianMicroseconds(commandTrip);
  std::vector<double> rawTimes;
  std::vector<double> commandTimes;
  std::vector<double> ratios;
  for (int round = 0; round < kRounds; ++round) {
    rawTimes.push_back(MedianMicroseconds(rawTrip));
    commandTimes.push_back(MedianMicroseconds(commandTrip));
    ratios.push_back(commandTimes.back() / rawTimes.back());
  }
  close(raw);
  Trel_CommManager::Terminate();
  waitpid(peer, nullptr, 0);

  std::printf("%-22s raw %7.2f us   command %7.2f us   median of ratios %6.3f\n", placement, bench::Median(rawTimes),
              bench::Median(commandTimes), bench::Median(ratios));
  if (failures != 0) {
    std::printf("%d round trips failed\n", failures);
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}

/// In a process of its own: an engine's process cannot fork the next peer.
bool MeasureApart(const char* placement, int ownCore, int peerCore) {
  std::fflush(stdout);
  const pid_t process = fork();
  if (process == 0) {
    std::exit(Measure(placement, ownCore, peerCore));
  }
  int status = 0;
  return process > 0 && waitpid(process, &status, 0) == process && WIFEXITED(status) &&
         WEXITSTATUS(status) == EXIT_SUCCESS;
}

} // namespace

int main() {
  std::printf("%d rounds of %d round trips, %zu bytes there, %zu back; medians. Mark on two cores: 1.3\n", kRounds,
              kTripsPerRound, kCommandBytes, kReplyBytes);
  const bool twoCores = sysconf(_SC_NPROCESSORS_ONLN) > 1;
  const bool measured = MeasureApart("both on one core", 0, 0) && (!twoCores || MeasureApart("a core each", 0, 1));
  return measured ? EXIT_SUCCESS : EXIT_FAILURE;
}
