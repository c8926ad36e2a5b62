#pragma once

#include "tests/support/TestSystem.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

/// The program in a process of its own: takes lines, and tells JSON objects, one a line (`trel host --json`, for one).
/// Destroying the object kills what still runs. One thread at a time.
class HostProcess {
public:
  using Json = nlohmann::json;
  using Arguments = std::vector<std::string>;
  using Milliseconds = std::chrono::milliseconds;
  static constexpr Milliseconds kTimeOut{20'000};

  /// Arguments that let no other test and no host of the user matter.
  static Arguments OnOwnPorts(Arguments arguments, const Arguments& more = {}) {
    arguments.insert(arguments.end(), more.begin(), more.end());
    if (arguments.front() != "discover") {
      arguments.insert(arguments.end(), {"--port", std::to_string(TestPort())});
    }
    arguments.insert(arguments.end(), {"--json", "--discovery-port", std::to_string(TestPort() + 8'000)});
    return arguments;
  }

  explicit HostProcess(Arguments arguments, const std::string& program = TREL_PROGRAM) {
    std::array<int, 2> input = {};
    std::array<int, 2> output = {};
    EXPECT_EQ(pipe2(input.data(), O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(output.data(), O_CLOEXEC), 0);
    arguments.insert(arguments.begin(), program);
    std::vector<char*> pointers;
    for (std::string& argument : arguments) {
      pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    mId = fork();
    if (mId == 0) {
      dup2(input[0], STDIN_FILENO);
      dup2(output[1], STDOUT_FILENO);
      dup2(output[1], STDERR_FILENO);
      execv(pointers.front(), pointers.data());
      _exit(127);
    }
    close(input[0]);
    close(output[1]);
    mInput = input[1];
    mOutput = output[0];
  }
  ~HostProcess() {
    if (mId > 0) { // first of all, because a host ends in order when its input does
      kill(mId, SIGKILL);
      waitpid(mId, nullptr, 0);
    }
    CloseInput();
    close(mOutput);
  }
  HostProcess(const HostProcess&) = delete;
  HostProcess& operator=(const HostProcess&) = delete;

  pid_t Id() const { return mId; }
  void Send(const std::string& line) {
    const std::string text = line + '\n';
    EXPECT_EQ(write(mInput, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  /// Ends the standard input, which ends a host.
  void CloseInput() {
    if (mInput >= 0) {
      close(std::exchange(mInput, -1));
    }
  }

  /// The next object that has all members of the pattern; those before it are passed over. Fails the test, and gives
  /// null, when there is none in time.
  Json Await(const Json& pattern, Milliseconds timeOut = kTimeOut) {
    const auto end = std::chrono::steady_clock::now() + timeOut;
    for (;;) {
      while (mNext < mObjects.size()) {
        const Json& object = mObjects[mNext++];
        Json merged = object;
        merged.merge_patch(pattern);
        if (merged == object) {
          return object;
        }
      }
      if (!Read(end)) {
        ADD_FAILURE() << "no " << pattern.dump() << " in time in\n" << mText;
        return nullptr;
      }
    }
  }
  /// Reads until the output so far contains a match, and gives its first group. Fails the test when it does not in
  /// time.
  std::string AwaitText(const std::string& pattern, Milliseconds timeOut = kTimeOut) {
    const auto end = std::chrono::steady_clock::now() + timeOut;
    std::smatch match;
    while (!std::regex_search(mText, match, std::regex(pattern))) {
      if (!Read(end)) {
        ADD_FAILURE() << "no \"" << pattern << "\" in time in\n" << mText;
        return "";
      }
    }
    return match[1];
  }
  /// Sends a command and gives its answer; fails the test when the answer is an error.
  Json Command(const std::string& line, Milliseconds timeOut = 2 * kTimeOut) {
    Send(line);
    return Await({{"event", "answer"}, {"command", line.substr(0, line.find(' '))}}, timeOut);
  }
  /// Sends a command that must fail, and gives its words.
  std::string Error(const std::string& line) {
    Send(line);
    const Json error = Await({{"event", "error"}, {"command", line.substr(0, line.find(' '))}});
    return error.is_object() ? error.value("text", "") : "";
  }

  /// Ends the input and waits for the end.
  /// @return the exit status, minus the signal that ended it, or -1000 when it did not end in time
  int End(Milliseconds timeOut = kTimeOut) {
    CloseInput();
    const auto end = std::chrono::steady_clock::now() + timeOut;
    while (Read(end)) {
    }
    int status = 0;
    if (!mIsAtEnd || waitpid(mId, &status, 0) != mId) {
      constexpr int kStillRunning = -1000;
      return kStillRunning;
    }
    mId = -1;
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
  }
  /// All that it has told so far: as it is, and the JSON objects in it.
  const std::string& Text() const { return mText; }
  const std::vector<Json>& Objects() const { return mObjects; }

private:
  bool Read(std::chrono::steady_clock::time_point end) {
    const auto left = std::chrono::ceil<Milliseconds>(end - std::chrono::steady_clock::now());
    pollfd descriptor = {mOutput, POLLIN, 0};
    std::array<char, 4096> bytes = {};
    if (mIsAtEnd || left.count() <= 0 || poll(&descriptor, 1, static_cast<int>(left.count())) != 1) {
      return false;
    }
    const ssize_t count = read(mOutput, bytes.data(), bytes.size());
    mIsAtEnd = count <= 0;
    mText.append(bytes.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
    for (std::size_t newline = 0; (newline = mText.find('\n', mParsed)) != std::string::npos; mParsed = newline + 1) {
      Json object = Json::parse(mText.substr(mParsed, newline - mParsed), nullptr, false);
      if (object.is_object()) {
        mObjects.push_back(std::move(object));
      }
    }
    return !mIsAtEnd;
  }

  pid_t mId = -1;
  int mInput = -1;
  int mOutput = -1;
  bool mIsAtEnd = false;
  std::string mText;
  std::size_t mParsed = 0; // bytes of it
  std::vector<Json> mObjects;
  std::size_t mNext = 0; // object that has not been looked at
};
