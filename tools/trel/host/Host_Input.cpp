#include "tools/trel/host/Host_Input.h"

#include <array>
#include <cerrno>

#include <poll.h>
#include <unistd.h>

Host_Input::Outcome Host_Input::ReadLine(std::string* line) {
  while (mSignal == 0) {
    if (auto next = mLines.TakeLine()) {
      const bool isTail = mSkips;
      mSkips = false;
      if (isTail || next->size() > kLongestLine) {
        return Outcome::lineTooLong;
      }
      *line = std::move(*next);
      return Outcome::line;
    }
    if (mLines.Size() > kLongestLine) {
      mLines.TakeRest();
      mSkips = true;
    }
    if (mIsAtEnd) {
      *line = mLines.TakeRest();
      return line->empty() ? Outcome::end : Outcome::line;
    }
    std::array<pollfd, 2> descriptors = {{{SignalPipe::Descriptor(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}}};
    if (poll(descriptors.data(), descriptors.size(), -1) < 0 && errno != EINTR) {
      mIsAtEnd = true;
    }
    mSignal = SignalPipe::Take();
    if (descriptors[1].revents != 0) {
      std::array<char, kLongestLine> bytes = {};
      const ssize_t count = read(STDIN_FILENO, bytes.data(), bytes.size());
      if (count > 0) {
        mLines.Append(bytes.data(), static_cast<std::size_t>(count));
      }
      mIsAtEnd = count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN);
    }
  }
  return Outcome::signalled;
}

bool Host_Input::Pause(std::chrono::milliseconds time) {
  pollfd descriptor = {SignalPipe::Descriptor(), POLLIN, 0};
  if (mSignal == 0 && poll(&descriptor, 1, static_cast<int>(time.count())) != 0) {
    mSignal = SignalPipe::Take();
  }
  return mSignal == 0;
}

bool Host_Input::IsTerminal() { return isatty(STDIN_FILENO) == 1; }

bool Host_Input::HasPrompt() { return IsTerminal() && isatty(STDOUT_FILENO) == 1; }
