#include "tools/trel/common/Output_Standard.h"

#include "tools/trel/common/ExitStatus.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

void OpenStandardDescriptors() {
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) < 0 && errno == EBADF) {
      open("/dev/null", O_RDWR); // gets the lowest number that is free; stays open for programs that are started
    }
  }
}

Output_Standard::Output_Standard()
    : mBuffer(STDOUT_FILENO, [](const std::string& reason) { Say("cannot write to the standard output: " + reason); }),
      mBefore(std::cout.rdbuf(&mBuffer)) {}

Output_Standard::~Output_Standard() {
  std::cout.flush();
  std::cout.rdbuf(mBefore);
}

int Output_Standard::Finish(int exitStatus) {
  std::cout.flush();
  return mBuffer.HasFailed() && exitStatus == kExitSuccess ? kExitFailure : exitStatus;
}

void Output_Standard::Say(const std::string& text) {
  // Not by way of std::cerr, which writes what std::cout holds first, and that is another thread's.
  constexpr std::chrono::milliseconds kPatience{200}; // whoever says something has other things to do
  Output_Buffer buffer(STDERR_FILENO, {}, kPatience);
  std::ostream(&buffer) << "trel: " + text + '\n' << std::flush;
}
