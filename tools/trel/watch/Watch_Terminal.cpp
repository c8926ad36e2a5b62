#include "tools/trel/watch/Watch_Terminal.h"

#include <cstdlib>
#include <iostream>
#include <string_view>

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

// On a screen of its own, without a cursor; what is too long is not continued on the next line.
constexpr const char* kEnter = "\x1b[?1049h\x1b[?25l\x1b[?7l\x1b[2J";
constexpr const char* kLeave = "\x1b[?7h\x1b[?25h\x1b[?1049l";
constexpr const char* kTop = "\x1b[H";
constexpr const char* kEraseLine = "\x1b[K";
constexpr const char* kEraseBelow = "\x1b[J";

winsize Size() {
  winsize size = {};
  ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
  return size;
}

} // namespace

Watch_Terminal::Watch_Terminal() : mHasKeys(isatty(STDIN_FILENO) == 1 && tcgetattr(STDIN_FILENO, &mBefore) == 0) {
  if (mHasKeys) {
    termios keys = mBefore;
    keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO); // Ctrl-C stays a signal
    keys.c_cc[VSUSP] = _POSIX_VDISABLE;                    // Ctrl-Z would leave the terminal as it is now
    tcsetattr(STDIN_FILENO, TCSANOW, &keys);
  }
  std::cout << kEnter << std::flush;
}

Watch_Terminal::~Watch_Terminal() {
  std::cout << kLeave << std::flush;
  if (mHasKeys) {
    tcsetattr(STDIN_FILENO, TCSANOW, &mBefore);
  }
}

bool Watch_Terminal::IsThere() {
  const char* const kind = std::getenv("TERM");
  return isatty(STDOUT_FILENO) == 1 && kind != nullptr && std::string_view(kind) != "dumb";
}

bool Watch_Terminal::HasColours() {
  const char* const noColour = std::getenv("NO_COLOR");
  return IsThere() && (noColour == nullptr || *noColour == '\0');
}

std::size_t Watch_Terminal::Width() {
  constexpr std::size_t kUsualWidth = 80;
  const winsize size = Size();
  return size.ws_col != 0 ? size.ws_col : kUsualWidth;
}

std::size_t Watch_Terminal::Height() {
  constexpr std::size_t kUsualHeight = 24;
  const winsize size = Size();
  return size.ws_row != 0 ? size.ws_row : kUsualHeight;
}

void Watch_Terminal::Show(const std::vector<std::string>& lines) {
  std::string text = kTop;
  for (std::size_t index = 0; index < lines.size(); ++index) {
    // Erased before, because behind a full line the cursor stands on its last character.
    text += std::string(index == 0 ? "" : "\r\n") + kEraseLine + lines[index];
  }
  if (lines.size() < Height()) {
    text += std::string("\r\n") + kEraseBelow;
  }
  std::cout << text << std::flush;
}

int Watch_Terminal::Keys() const { return mHasKeys ? STDIN_FILENO : -1; }

bool Watch_Terminal::HasQuit() const {
  pollfd key = {STDIN_FILENO, POLLIN, 0};
  while (mHasKeys && poll(&key, 1, 0) > 0) {
    char byte = 0;
    if (read(STDIN_FILENO, &byte, 1) != 1 || byte == 'q' || byte == 'Q') {
      return true;
    }
  }
  return false;
}
