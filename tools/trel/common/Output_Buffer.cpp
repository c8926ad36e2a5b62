#include "tools/trel/common/Output_Buffer.h"

#include "tools/trel/common/SignalPipe.h"

#include <cerrno>
#include <ostream>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kGlance{50};           // how late it may be noticed that a reader is given up
constexpr milliseconds kSignalPatience{1000}; // then nobody takes the signal, because who would is writing

bool Is(int descriptor, mode_t kind) {
  struct stat status = {};
  return fstat(descriptor, &status) == 0 && (status.st_mode & S_IFMT) == kind;
}

/// Other programs may share the pipe or terminal, so that blocking cannot be turned off there.
int WithoutBlocking(int descriptor) {
  if (!Is(descriptor, S_IFIFO) && isatty(descriptor) != 1) {
    return descriptor;
  }
  const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
  const int another = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  return another >= 0 ? another : descriptor;
}

} // namespace

Output_Buffer::Output_Buffer(int descriptor, OnFailure onFailure, milliseconds patience)
    : mGiven(descriptor), mDescriptor(WithoutBlocking(descriptor)), mIsSocket(Is(descriptor, S_IFSOCK)),
      mOnFailure(std::move(onFailure)), mPatience(patience) {
  setp(mBytes.begin(), mBytes.end());
}

Output_Buffer::~Output_Buffer() {
  if (mDescriptor != mGiven) {
    close(mDescriptor);
  }
}

void Output_Buffer::GiveUp(const std::ostream& stream) {
  if (auto* const buffer = dynamic_cast<Output_Buffer*>(stream.rdbuf()); buffer != nullptr) {
    buffer->GiveUp();
  }
}

void Output_Buffer::Fail(std::string reason) {
  if (!HasFailed()) {
    mReason = std::move(reason);
    if (mOnFailure) {
      mOnFailure(mReason);
    }
  }
}

Output_Buffer::int_type Output_Buffer::overflow(int_type character) {
  if (sync() != 0) {
    return traits_type::eof();
  }
  return traits_type::eq_int_type(character, traits_type::eof()) ? traits_type::not_eof(character)
                                                                 : sputc(traits_type::to_char_type(character));
}

int Output_Buffer::sync() {
  const std::string_view bytes(pbase(), static_cast<std::size_t>(pptr() - pbase()));
  setp(mBytes.begin(), mBytes.end());
  return Write(bytes) ? 0 : -1;
}

bool Output_Buffer::Write(std::string_view bytes) {
  while (!bytes.empty() && !HasFailed()) {
    const ssize_t count = mIsSocket ? send(mDescriptor, bytes.data(), bytes.size(), MSG_DONTWAIT)
                                    : write(mDescriptor, bytes.data(), bytes.size());
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno == EAGAIN) {
      if (!AwaitReader()) {
        Fail("nobody reads it");
      }
    } else if (errno != EINTR) {
      Fail(std::generic_category().message(errno));
    }
  }
  return !HasFailed();
}

bool Output_Buffer::AwaitReader() {
  milliseconds waited{0};
  milliseconds signalled{0};
  while (!mIsGivenUp && waited < mPatience && signalled < kSignalPatience) {
    pollfd descriptor = {mDescriptor, POLLOUT, 0};
    if (poll(&descriptor, 1, static_cast<int>(kGlance.count())) > 0) {
      return true;
    }
    waited += kGlance;
    signalled = SignalPipe::IsWaiting() ? signalled + kGlance : milliseconds{0};
  }
  return false;
}
