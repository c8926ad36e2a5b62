#include "foundation/Sys_SecretFile.h"

#include "foundation/Sys_Wipe.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Open while this object lives; -1 when that failed. Never waits for the other end of a pipe.
class Descriptor {
public:
  explicit Descriptor(const std::string& path) : mNumber(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
  ~Descriptor() {
    if (mNumber >= 0) {
      close(mNumber);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Number() const { return mNumber; }

private:
  int mNumber;
};

constexpr std::size_t kRandomSize = 64; // of 256 bits
constexpr const char* kTooMany = "has more than two lines: it holds one secret, or two, each on its line";

bool IsEndOfLine(std::byte byte) { return byte == std::byte{'\n'} || byte == std::byte{'\r'}; }

/// As they are written: in capitals it would be another secret.
bool IsDigit(std::byte byte) {
  const auto character = static_cast<char>(byte);
  return (character >= '0' && character <= '9') || (character >= 'a' && character <= 'f');
}

std::string LastError() { return std::generic_category().message(errno); }

/// Reads to the end or until the space is full; false when reading fails.
bool ReadAll(int descriptor, std::span<std::byte> space, std::size_t& size) {
  while (size < space.size()) {
    const ssize_t count = read(descriptor, space.data() + size, space.size() - size);
    if (count == 0) {
      return true;
    }
    if (count > 0) {
      size += static_cast<std::size_t>(count);
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

} // namespace

Sys_SecretFile::Sys_SecretFile(const std::string& path) {
  const auto refuse = [this, &path](const std::string& reason) {
    Sys_Wipe(mBytes);
    mCount = 0;
    mFault = "the secret file " + path + ' ' + reason;
  };
  const Descriptor file(path);
  struct stat status {};
  if (file.Number() < 0 || fstat(file.Number(), &status) != 0) {
    refuse("cannot be opened: " + LastError());
    return;
  }
  if (!S_ISREG(status.st_mode)) {
    refuse("is not a regular file");
    return;
  }
  if (status.st_uid != geteuid() && status.st_uid != 0) {
    refuse("belongs to another user");
    return;
  }
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    refuse("is open to other users: only its owner may read and write it (mode 0600)");
    return;
  }
  std::size_t size = 0;
  if (!ReadAll(file.Number(), mBytes, size)) {
    refuse("cannot be read: " + LastError());
    return;
  }
  if (const std::string fault = TakeApart(std::span(mBytes).first(size)); !fault.empty()) {
    refuse(fault);
  }
}

Sys_SecretFile::~Sys_SecretFile() { Sys_Wipe(mBytes); }

std::string Sys_SecretFile::TakeApart(std::span<const std::byte> rest) {
  const bool isTooLong = rest.size() == mBytes.size();
  while (!rest.empty()) {
    const auto end = std::find_if(rest.begin(), rest.end(), IsEndOfLine);
    const auto secret = rest.first(static_cast<std::size_t>(end - rest.begin()));
    rest = rest.subspan(std::min(secret.size() + 1, rest.size()));
    if (secret.empty()) {
      continue;
    }
    if (secret.size() < kMinSize) {
      return "is too short: a secret has at least " + std::to_string(kMinSize) + " characters";
    }
    if (secret.size() > kMaxSize) {
      return "is too long: a secret has at most " + std::to_string(kMaxSize) + " characters";
    }
    if (mCount == kMostSecrets) {
      return kTooMany;
    }
    mSecrets.at(mCount++) = secret;
  }
  return isTooLong ? kTooMany : mCount == 0 ? "is empty" : "";
}

bool Sys_SecretFile::IsMadeUp() const {
  const std::span secrets = Secrets();
  return !std::all_of(secrets.begin(), secrets.end(), [](std::span<const std::byte> secret) {
    return secret.size() == kRandomSize && std::all_of(secret.begin(), secret.end(), IsDigit);
  });
}
