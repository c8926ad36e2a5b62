#include "tools/trel/common/Status_Client.h"

#include "tools/trel/common/Status_Directory.h"

#include <trel/Sys_Clock.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr std::size_t kLongestLine = 1U << 20; // 129 systems take about 70 KB

}

Status_Client::Status_Client(std::string path) : mPath(std::move(path)) {}

Status_Client::~Status_Client() { close(mDescriptor); }

bool Status_Client::Connect() {
  close(mDescriptor);
  mLines.TakeRest();
  mDescriptor = Status_Directory::Connect(mPath);
  return mDescriptor >= 0;
}

Status_Client::Outcome Status_Client::Read(std::string* line) {
  bool hasEnded = false;
  Outcome outcome = Outcome::timedOut;
  std::array<char, 65536> bytes = {};
  while (!hasEnded) {
    const ssize_t count = recv(mDescriptor, bytes.data(), bytes.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
      break;
    }
    hasEnded = count <= 0 || mLines.Size() > kLongestLine;
    if (count > 0) {
      mLines.Append(bytes.data(), static_cast<std::size_t>(count));
    }
    while (auto next = mLines.TakeLine()) {
      *line = std::move(*next);
      outcome = Outcome::line;
    }
  }
  return outcome == Outcome::line || !hasEnded ? outcome : Outcome::ended;
}

Status_Client::Outcome Status_Client::WaitFor(std::string* line, int milliseconds) {
  const std::int64_t end = Sys_Clock::RawMicroseconds() + std::int64_t{milliseconds} * 1000;
  for (;;) {
    const Outcome outcome = Read(line);
    const std::int64_t left = end - Sys_Clock::RawMicroseconds();
    if (outcome != Outcome::timedOut || left <= 0) {
      return outcome;
    }
    pollfd descriptor = {mDescriptor, POLLIN, 0};
    poll(&descriptor, 1, static_cast<int>(left / 1000 + 1));
  }
}
