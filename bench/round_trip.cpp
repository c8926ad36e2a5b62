// A synchronous command that the peer answers on its network thread, beside a raw blocking TCP ping-pong of the same
// sizes between the same two processes: alternating rounds, the ratio of each pair, the median of the ratios.
//
// Where the scheduler puts the processes changes both figures tenfold, so each placement is measured by itself: the two
// on a core each, as systems on machines of their own would be, and both on one core, where a wake-up is a mere switch.

#include <trel/Sys_Socket.h>
#include <trel/Trel.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/socket.h>
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

[[noreturn]] void Fail(const char* what) {
  std::perror(what);
  std::exit(EXIT_FAILURE);
}

sockaddr_in AddressOf(std::uint32_t address, std::uint16_t port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_addr.s_addr = htonl(address);
  result.sin_port = htons(port);
  return result;
}

void WithoutDelay(int socket) {
  const int on = 1;
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

void RunOn(int core) {
  cpu_set_t cores;
  CPU_ZERO(&cores);
  CPU_SET(static_cast<std::size_t>(core), &cores);
  if (sched_setaffinity(0, sizeof cores, &cores) != 0) {
    Fail("choosing a core");
  }
}

bool ReadWhole(int socket, void* buffer, std::size_t size) {
  return recv(socket, buffer, size, MSG_WAITALL) == static_cast<ssize_t>(size);
}

void StartEngine(std::uint32_t address) {
  Trel_Init::Init();
  Trel_CommPreferences::Inst()->SetLocalInterfaceAddress(address);
  Trel_CommPreferences::Inst()->SetCommunicationPort(kPort);
  if (Trel_CommManager::Initialize(Trel_CommPreferences::Inst(), nullptr) != eTCPE_Status_Success) {
    std::fprintf(stderr, "the engine does not start on %s\n", Sys_Socket::DecodeIPAddress(address).c_str());
    std::exit(EXIT_FAILURE);
  }
}

/// The peer: an engine, and a thread that answers raw messages until the other process is gone.
[[noreturn]] void RunPeer(int ready) {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  const int on = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in address = AddressOf(kThere, kRawPort);
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || listen(listener, 1) != 0) {
    Fail("raw listener");
  }
  StartEngine(kThere);
  if (write(ready, "r", 1) != 1) {
    Fail("pipe");
  }
  const int raw = accept(listener, nullptr, nullptr);
  WithoutDelay(raw);
  std::array<char, kCommandBytes> message{};
  while (ReadWhole(raw, message.data(), kCommandBytes)) {
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

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

int Measure(const char* placement, int ownCore, int peerCore) {
  std::array<int, 2> ready{};
  if (pipe(ready.data()) != 0) {
    Fail("pipe");
  }
  const pid_t peer = fork();
  if (peer == 0) {
    RunOn(peerCore);
    RunPeer(ready[1]);
  }
  RunOn(ownCore);
  char word = 0;
  if (peer < 0 || read(ready[0], &word, 1) != 1) {
    Fail("peer");
  }
  const int raw = socket(AF_INET, SOCK_STREAM, 0);
  const sockaddr_in address = AddressOf(kThere, kRawPort);
  if (connect(raw, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    Fail("raw connection");
  }
  WithoutDelay(raw);
  StartEngine(kHere);
  if (!Trel_CommManager::Connect(kThere)) {
    std::fprintf(stderr, "the peer does not answer\n");
    return EXIT_FAILURE;
  }

  int failures = 0;
  const auto rawTrip = [&] {
    std::array<char, kCommandBytes> message{};
    failures += send(raw, message.data(), kCommandBytes, 0) != static_cast<ssize_t>(kCommandBytes) ||
                !ReadWhole(raw, message.data(), kReplyBytes);
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

  std::printf("%-22s raw %7.2f us   command %7.2f us   median of ratios %6.3f\n", placement, Median(rawTimes),
              Median(commandTimes), Median(ratios));
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
