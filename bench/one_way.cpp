// How many prime commands a second come to a handler in another process, none lost, beside ZeroMQ PUSH and PULL of
// messages of the same size between the same two processes: alternating rounds, the ratio of each pair, medians.

#include "bench_support.h"

#include <atomic>
#include <chrono>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>
#include <zmq.h>

namespace {

constexpr std::uint32_t kHere = 0x7f000054;  // 127.0.0.84
constexpr std::uint32_t kThere = 0x7f000055; // 127.0.0.85
constexpr std::uint16_t kPort = 28484;
constexpr const char* kQueue = "tcp://127.0.0.85:28485";
constexpr std::size_t kMessage = 64; // of Prime: header, five 64-bit times and a speed
constexpr int kRounds = 11;
constexpr std::int64_t kPerRound = 300'000;

/// What the receiving process has got.
struct Received {
  std::atomic<std::int64_t> commands = 0;
  std::atomic<std::int64_t> messages = 0;
  std::atomic<bool> isReady = false;
  std::atomic<bool> isOutOfOrder = false;
};
Received& received = bench::Shared<Received>();

void OnPrime(TCPE_Command* command) {
  const std::int64_t count = received.commands.load(std::memory_order_relaxed);
  if (static_cast<const Trel_Cmd_Prime*>(command)->GetActualStartTime() != count) {
    received.isOutOfOrder = true;
  }
  received.commands.store(count + 1, std::memory_order_release);
}

[[noreturn]] void RunPeer(int ends) {
  Trel_Command::SetDoItCommand(Trel_Cmd_Prime::GetCommandID(), &OnPrime);
  bench::StartEngine(kThere, kPort);
  void* const context = zmq_ctx_new();
  void* const pull = zmq_socket(context, ZMQ_PULL);
  if (zmq_bind(pull, kQueue) != 0) {
    bench::Fail("binding the queue");
  }
  std::thread([pull] {
    std::array<char, kMessage> message{};
    while (zmq_recv(pull, message.data(), message.size(), 0) == static_cast<int>(message.size())) {
      received.messages.store(received.messages.load(std::memory_order_relaxed) + 1, std::memory_order_release);
    }
  }).detach();
  received.isReady = true;
  char word = 0;
  std::_Exit(read(ends, &word, 1) == 0 ? EXIT_SUCCESS : EXIT_FAILURE); // the other process is gone
}

template <class SendOne>
double MillionsASecond(const std::atomic<std::int64_t>& arrived, SendOne sendOne) {
  const std::int64_t first = arrived;
  const auto begin = std::chrono::steady_clock::now();
  for (std::int64_t i = 0; i < kPerRound; ++i) {
    sendOne(first + i);
  }
  while (arrived.load(std::memory_order_acquire) < first + kPerRound && !received.isOutOfOrder) {
    usleep(50);
  }
  return static_cast<double>(kPerRound) /
         std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count();
}

} // namespace

int main() {
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) {
    bench::Fail("pipe");
  }
  const pid_t peer = fork();
  if (peer == 0) {
    close(ends[1]);
    RunPeer(ends[0]);
  }
  while (!received.isReady) {
    if (waitpid(peer, nullptr, WNOHANG) != 0) {
      return EXIT_FAILURE;
    }
    usleep(1000);
  }
  void* const context = zmq_ctx_new();
  void* const push = zmq_socket(context, ZMQ_PUSH);
  bench::StartEngine(kHere, kPort);
  if (zmq_connect(push, kQueue) != 0 || !Trel_CommManager::Connect(kThere)) {
    std::fprintf(stderr, "the peer does not answer\n");
    return EXIT_FAILURE;
  }
  bool hasFailed = false;
  const auto sendCommand = [&hasFailed](std::int64_t number) {
    Trel_Cmd_Prime command(0, 1, 2, 3, number, 1000);
    command.SetIPAddressTo(kThere);
    Trel_CommManager::SendCommand(&command);
    hasFailed = hasFailed || command.GetError() != eTCPE_CommErr_None;
  };
  const auto sendMessage = [&hasFailed, push](std::int64_t number) {
    std::array<std::int64_t, kMessage / sizeof(std::int64_t)> message{number};
    hasFailed = hasFailed || zmq_send(push, message.data(), kMessage, 0) != static_cast<int>(kMessage);
  };
  MillionsASecond(received.commands, sendCommand);
  MillionsASecond(received.messages, sendMessage);
  std::vector<double> commands;
  std::vector<double> messages;
  std::vector<double> ratios;
  for (int round = 0; round < kRounds; ++round) {
    messages.push_back(MillionsASecond(received.messages, sendMessage));
    commands.push_back(MillionsASecond(received.commands, sendCommand));
    ratios.push_back(commands.back() / messages.back());
  }
  Trel_CommManager::Terminate();
  close(ends[1]);
  waitpid(peer, nullptr, 0);
  std::printf("%d rounds of %lld; millions a second: queue %5.2f, commands %5.2f; median of ratios %5.2f. Mark: 0.5\n",
              kRounds, static_cast<long long>(kPerRound), bench::Median(messages), bench::Median(commands),
              bench::Median(ratios));
  if (hasFailed || received.isOutOfOrder) {
    std::printf("a command was refused, or did not come in its turn\n");
    return EXIT_FAILURE;
  }
  return EXIT_SUCCESS;
}
