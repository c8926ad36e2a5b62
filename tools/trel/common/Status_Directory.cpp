#include "tools/trel/common/Status_Directory.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <system_error>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

/// The user's runtime directory first; a host that a service started may not have been told of it.
std::vector<std::string> Candidates() {
  const std::string user = std::to_string(geteuid());
  std::vector<std::string> candidates;
  if (const char* const runtime = std::getenv("XDG_RUNTIME_DIR"); runtime != nullptr && *runtime == '/') {
    candidates.push_back(std::string(runtime) + "/trel");
  }
  candidates.push_back("/run/user/" + user + "/trel");
  candidates.push_back("/tmp/trel-" + user);
  candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
  return candidates;
}

constexpr std::size_t kLongestDirectory = sizeof(sockaddr_un::sun_path) - sizeof("/.4294967295.sock");

void Append(std::string& list, const std::string& text) { list += (list.empty() ? "" : "; ") + text; }

/// The process in the name of a socket, or 0.
pid_t ProcessOf(const fs::path& path) {
  const std::string name = path.stem().string();
  pid_t process = 0;
  const auto result = std::from_chars(name.data(), name.data() + name.size(), process);
  const bool isNumber = result.ec == std::errc() && result.ptr == name.data() + name.size();
  return isNumber && path.extension() == Status_Directory::kSuffix ? process : 0;
}

} // namespace

std::string Status_Directory::TroubleWith(const std::string& directory) {
  struct stat status = {};
  const char* trouble = nullptr;
  if (directory.size() > kLongestDirectory) {
    trouble = " has too long a name for a socket";
  } else if (lstat(directory.c_str(), &status) != 0) {
    return directory + ": " + std::generic_category().message(errno);
  } else if (S_ISLNK(status.st_mode)) {
    trouble = " is a symbolic link, which another user may have put there";
  } else if (!S_ISDIR(status.st_mode)) {
    trouble = " is no directory";
  } else if (status.st_uid != geteuid()) {
    trouble = " belongs to another user";
  } else if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    trouble = " is open to other users (chmod 700)";
  }
  return trouble != nullptr ? directory + trouble : "";
}

std::string Status_Directory::Make(std::string* trouble) {
  trouble->clear();
  for (const std::string& candidate : Candidates()) {
    const bool isThere = mkdir(candidate.c_str(), S_IRWXU) == 0 || errno == EEXIST;
    const std::string reason =
        isThere ? TroubleWith(candidate) : candidate + ": " + std::generic_category().message(errno);
    if (reason.empty()) {
      trouble->clear();
      return candidate;
    }
    Append(*trouble, reason);
  }
  return {};
}

std::vector<std::string> Status_Directory::Sockets(std::string* trouble) {
  trouble->clear();
  std::map<pid_t, std::string> sockets;
  for (const std::string& candidate : Candidates()) {
    std::error_code error;
    if (!fs::exists(fs::symlink_status(candidate, error)) && error.value() != EACCES) {
      continue; // then no host is there either
    }
    if (const std::string reason = TroubleWith(candidate); !reason.empty()) {
      Append(*trouble, reason);
      continue;
    }
    for (auto entry = fs::directory_iterator(candidate, error); !error && entry != fs::directory_iterator();
         entry.increment(error)) {
      const pid_t process = ProcessOf(entry->path());
      if (process == 0) {
        continue;
      }
      const std::string path = entry->path().string();
      if (const int descriptor = Connect(path); descriptor >= 0) {
        close(descriptor);
        sockets.emplace(process, path);
      } else if (errno == ECONNREFUSED) {
        unlink(path.c_str());
      }
    }
    if (error) {
      Append(*trouble, candidate + ": " + error.message());
    }
  }
  std::vector<std::string> paths;
  paths.reserve(sockets.size());
  for (const auto& [process, path] : sockets) {
    paths.push_back(path);
  }
  return paths;
}

int Status_Directory::Connect(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    errno = ENAMETOOLONG;
    return -1;
  }
  path.copy(static_cast<char*>(address.sun_path), path.size());
  const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  // A socket of this kind connects at once or not at all.
  if (descriptor >= 0 && connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    const int error = errno;
    close(descriptor);
    errno = error;
    return -1;
  }
  return descriptor;
}
