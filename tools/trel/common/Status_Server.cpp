#include "tools/trel/common/Status_Server.h"

#include "tools/trel/common/JsonLine.h"
#include "tools/trel/common/Status_Directory.h"

#include <trel/Sys_Clock.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr std::int64_t kPeriod = 250'000;     // microseconds of the raw clock
constexpr std::int64_t kPatience = 5'000'000; // with a client that does not read
constexpr int kPause = 1000;                  // milliseconds, when the process has no descriptors left
constexpr int kBacklog = 8;

} // namespace

Status_Server::Status_Server(MakeStatus makeStatus) : mMakeStatus(std::move(makeStatus)) {
  if (Listen() && pipe2(mEnd.data(), O_CLOEXEC) == 0) {
    mThread = std::thread([this] {
      try {
        Run();
      } catch (const std::exception&) {
        // Nobody looks in any more; the host goes on.
      }
    });
  }
}

Status_Server::~Status_Server() {
  if (!mPath.empty()) {
    unlink(mPath.c_str());
  }
  close(mEnd[1]);
  if (mThread.joinable()) {
    mThread.join();
  }
  close(mEnd[0]);
  close(mListener);
}

bool Status_Server::Listen() {
  const std::string directory = Status_Directory::Make(&mTrouble);
  if (directory.empty()) {
    return false;
  }
  std::string ignored;
  Status_Directory::Sockets(&ignored); // removes what others have left behind
  const std::string process = std::to_string(getpid());
  // Nobody finds the socket before somebody listens at it, so that it is not taken for one that was left behind.
  const std::string hidden = directory + "/." + process;
  const std::string path = directory + "/" + process + Status_Directory::kSuffix;
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  hidden.copy(static_cast<char*>(address.sun_path), sizeof(address.sun_path) - 1);
  unlink(hidden.c_str());
  mListener = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (mListener < 0 || bind(mListener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      chmod(hidden.c_str(), S_IRUSR | S_IWUSR) != 0 || listen(mListener, kBacklog) != 0 ||
      rename(hidden.c_str(), path.c_str()) != 0) {
    mTrouble = path + ": " + std::generic_category().message(errno);
    unlink(hidden.c_str());
    return false;
  }
  mPath = path;
  return true;
}

void Status_Server::Run() {
  std::int64_t next = 0; // raw time
  std::string line;
  for (;;) {
    std::vector<pollfd> descriptors = {{mEnd[0], POLLIN, 0}, {mListener, POLLIN, 0}};
    for (const Client& client : mClients) {
      descriptors.push_back({client.descriptor, static_cast<short>(client.unsent.empty() ? 0 : POLLOUT), 0});
    }
    const std::int64_t wait = std::max<std::int64_t>(next - Sys_Clock::RawMicroseconds(), 0);
    const int milliseconds = mClients.empty() ? -1 : static_cast<int>(wait / 1000 + 1);
    if (poll(descriptors.data(), descriptors.size(), milliseconds) < 0 && errno != EINTR) {
      break;
    }
    if (descriptors[0].revents != 0) {
      break;
    }
    if (descriptors[1].revents != 0 && !Admit()) {
      poll(descriptors.data(), 1, kPause);
    }
    const bool isDue = Sys_Clock::RawMicroseconds() >= next;
    const auto isFresh = [](const Client& client) { return client.lastTaken == 0; };
    if (isDue ? !mClients.empty() : std::any_of(mClients.begin(), mClients.end(), isFresh)) {
      // Names come from the network: what is no UTF-8 is replaced.
      line = JsonLine(mMakeStatus().ToJson()) + '\n';
      next = isDue ? Sys_Clock::RawMicroseconds() + kPeriod : next;
    }
    std::erase_if(mClients, [&](Client& client) {
      const bool stays = Serve(client, isDue || isFresh(client) ? line : std::string());
      if (!stays) {
        close(client.descriptor);
      }
      return !stays;
    });
  }
  for (const Client& client : mClients) {
    close(client.descriptor);
  }
}

bool Status_Server::Admit() {
  const int descriptor = accept4(mListener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (descriptor >= 0 && mClients.size() >= kMostClients) {
    close(descriptor);
  } else if (descriptor >= 0) {
    mClients.push_back({.descriptor = descriptor, .unsent = {}, .lastTaken = 0});
  }
  return descriptor >= 0 || errno == EAGAIN || errno == EINTR || errno == ECONNABORTED;
}

bool Status_Server::Serve(Client& client, const std::string& line) {
  char byte = 0;
  const ssize_t read = recv(client.descriptor, &byte, 1, 0);
  if (read >= 0 || (errno != EAGAIN && errno != EINTR)) {
    return false; // it has gone, or says something: nobody is listened to here
  }
  const std::int64_t now = Sys_Clock::RawMicroseconds();
  if (client.lastTaken == 0) {
    client.lastTaken = now;
  }
  if (client.unsent.empty()) {
    client.unsent = line;
  }
  if (!client.unsent.empty()) {
    const ssize_t sent = send(client.descriptor, client.unsent.data(), client.unsent.size(), MSG_NOSIGNAL);
    if (sent > 0) {
      client.unsent.erase(0, static_cast<std::size_t>(sent));
      client.lastTaken = now;
    } else if (errno != EAGAIN && errno != EINTR) {
      return false;
    }
  }
  return client.unsent.empty() || now - client.lastTaken < kPatience;
}
