#include "foundation/Sys_SecretFile.h"

#include "foundation/Sys_Wipe.h"

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
    mSize = 0;
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
  if (!ReadAll(file.Number(), mBytes, mSize)) {
    refuse("cannot be read: " + LastError());
    return;
  }
  const bool isTooLong = mSize == mBytes.size();
  while (mSize > 0 && (mBytes[mSize - 1] == std::byte{'\n'} || mBytes[mSize - 1] == std::byte{'\r'})) {
    --mSize;
  }
  if (mSize == 0) {
    refuse("is empty");
  } else if (mSize < kMinSize) {
    refuse("is too short: a secret has at least " + std::to_string(kMinSize) + " characters");
  } else if (isTooLong || mSize > kMaxSize) {
    refuse("is too long: a secret has at most " + std::to_string(kMaxSize) + " characters");
  }
}

Sys_SecretFile::~Sys_SecretFile() { Sys_Wipe(mBytes); }
