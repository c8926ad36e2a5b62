#include "tools/trel/demo/Demo_Process.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ; // NOLINT(readability-redundant-declaration): POSIX leaves it to the program

namespace {

void Check(int error, const char* what) {
  if (error != 0) {
    throw std::system_error(error, std::generic_category(), what);
  }
}

struct Pipe {
  Pipe() {
    Check(pipe(ends.data()) == 0 ? 0 : errno, "cannot make a pipe");
    for (const int end : ends) {
      fcntl(end, F_SETFD, FD_CLOEXEC); // the other children must not hold it open
    }
  }
  ~Pipe() {
    for (const int end : ends) {
      if (end >= 0) {
        close(end);
      }
    }
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  /// Gives the parent's end away, made non-blocking.
  int TakeParentEnd(std::size_t index) {
    fcntl(ends[index], F_SETFL, O_NONBLOCK);
    return std::exchange(ends[index], -1);
  }

  std::array<int, 2> ends = {-1, -1};
};

struct SpawnSettings {
  SpawnSettings() {
    Check(posix_spawn_file_actions_init(&actions), "posix_spawn_file_actions_init");
    Check(posix_spawnattr_init(&attributes), "posix_spawnattr_init");
  }
  ~SpawnSettings() {
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  posix_spawn_file_actions_t actions = {};
  posix_spawnattr_t attributes = {};
};

} // namespace

Demo_Process::Demo_Process(std::vector<std::string> arguments) {
  Pipe input;
  Pipe output;
  SpawnSettings settings;
  Check(posix_spawn_file_actions_adddup2(&settings.actions, input.ends[0], STDIN_FILENO), "cannot set up a process");
  Check(posix_spawn_file_actions_adddup2(&settings.actions, output.ends[1], STDOUT_FILENO), "cannot set up a process");
  posix_spawnattr_setflags(&settings.attributes, POSIX_SPAWN_SETPGROUP);
  posix_spawnattr_setpgroup(&settings.attributes, 0);
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) {
    pointers.push_back(argument.data());
  }
  pointers.push_back(nullptr);
  Check(posix_spawn(&mId, pointers.front(), &settings.actions, &settings.attributes, pointers.data(), environ),
        "cannot start a process");
  mInput = input.TakeParentEnd(1);
  mOutput = output.TakeParentEnd(0);
}

Demo_Process::~Demo_Process() {
  if (!HasEnded()) {
    Kill();
    int status = 0;
    while (waitpid(mId, &status, 0) < 0 && errno == EINTR) {
    }
  }
  close(mInput);
  if (mOutput >= 0) {
    close(mOutput);
  }
}

void Demo_Process::ReadAvailable() {
  std::array<char, 4096> bytes = {};
  while (mOutput >= 0) {
    const ssize_t count = read(mOutput, bytes.data(), bytes.size());
    if (count > 0) {
      mLines.Append(bytes.data(), static_cast<std::size_t>(count));
    } else if (count < 0 && errno == EINTR) {
      continue;
    } else if (count < 0 && errno == EAGAIN) {
      return;
    } else {
      close(std::exchange(mOutput, -1));
    }
  }
}

void Demo_Process::Send(const std::string& text) const {
  [[maybe_unused]] const ssize_t count = write(mInput, text.data(), text.size());
}

bool Demo_Process::HasEnded() {
  int status = 0;
  if (!mStatus && waitpid(mId, &status, WNOHANG) == mId) {
    mStatus = status;
  }
  return mStatus.has_value();
}

void Demo_Process::Kill() {
  if (!HasEnded()) {
    kill(mId, SIGKILL);
  }
}

std::string Demo_Process::EndText() const {
  const int status = mStatus.value_or(0);
  if (WIFSIGNALED(status)) {
    return "killed by signal " + std::to_string(WTERMSIG(status)) + " (" + strsignal(WTERMSIG(status)) + ")";
  }
  return "ended with status " + std::to_string(WEXITSTATUS(status));
}
