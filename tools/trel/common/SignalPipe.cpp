#include "tools/trel/common/SignalPipe.h"

#include <cstddef>
#include <iterator>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

std::atomic<int> SignalPipe::sEnds[2] = {-1, -1};

SignalPipe::SignalPipe() {
  int ends[2] = {-1, -1};
  if (pipe(ends) == 0) {
    for (std::size_t index = 0; index < std::size(ends); ++index) {
      fcntl(ends[index], F_SETFD, FD_CLOEXEC);
      fcntl(ends[index], F_SETFL, O_NONBLOCK);
      sEnds[index] = ends[index];
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
  for (std::atomic<int>& end : sEnds) {
    close(end.exchange(-1));
  }
}

int SignalPipe::Take() {
  char byte = 0;
  return read(sEnds[0], &byte, 1) == 1 ? byte : 0;
}

bool SignalPipe::IsWaiting() {
  pollfd descriptor = {Descriptor(), POLLIN, 0}; // without an object a negative one, which is passed over
  return poll(&descriptor, 1, 0) > 0;
}
