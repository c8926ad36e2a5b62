#include "tools/trel/common/Output_File.h"

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr mode_t kAsTheUserWants = 0666; // less the mask

std::string Text(const std::string& file, const std::string& reason) { return "cannot write " + file + ": " + reason; }

int Open(const std::string& file) {
  const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kAsTheUserWants);
  if (descriptor < 0) {
    throw std::runtime_error(Text(file, std::generic_category().message(errno)));
  }
  return descriptor;
}

} // namespace

Output_File::Output_File(std::string name, Output_Buffer::OnFailure onFailure, std::chrono::milliseconds patience)
    : std::ostream(nullptr), mName(std::move(name)), mDescriptor(Open(mName)),
      mBuffer(mDescriptor, std::move(onFailure), patience) {
  rdbuf(&mBuffer);
}

std::string Output_File::Problem() const { return mBuffer.HasFailed() ? Text(mName, mBuffer.Reason()) : ""; }

Output_File::~Output_File() {
  if (mDescriptor >= 0) {
    flush();
    close(mDescriptor);
  }
}

void Output_File::Close() {
  flush();
  if (close(std::exchange(mDescriptor, -1)) != 0) {
    mBuffer.Fail(std::generic_category().message(errno)); // some file systems know only now
  }
  if (mBuffer.HasFailed()) {
    throw std::runtime_error(Problem());
  }
}
