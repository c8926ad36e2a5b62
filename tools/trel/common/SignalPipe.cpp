#include "tools/trel/common/SignalPipe.h"

#include <cstddef>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

int SignalPipe::sEnds[2] = {-1, -1};

SignalPipe::SignalPipe() {
  if (pipe(sEnds) == 0) {
    for (const int end : sEnds) {
      fcntl(end, F_SETFD, FD_CLOEXEC);
      fcntl(end, F_SETFL, O_NONBLOCK);
    }
  }
  for (std::size_t index = 0; index < kSignals.size(); ++index) {
    struct sigaction action = {};
    action.sa_handler = [](int signal) {
      const auto byte = static_cast<char>(signal);
      [[maybe_unused]] const ssize_t count = write(sEnds[1], &byte, 1);
    };
    if (kSignals[index] == SIGPIPE) {
      action.sa_handler = SIG_IGN;
    }
    sigaction(kSignals[index], &action, &mBefore[index]);
  }
}

SignalPipe::~SignalPipe() {
  for (std::size_t index = 0; index < kSignals.size(); ++index) {
    sigaction(kSignals[index], &mBefore[index], nullptr);
  }
  for (int& end : sEnds) {
    close(std::exchange(end, -1));
  }
}

int SignalPipe::Take() {
  char byte = 0;
  return read(sEnds[0], &byte, 1) == 1 ? byte : 0;
}
