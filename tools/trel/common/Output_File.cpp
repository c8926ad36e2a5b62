#include "tools/trel/common/Output_File.h"

#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr mode_t kAsTheUserWants = 0666; // less the mask

}

Output_File::Output_File(std::string name, Output_Buffer::OnFailure onFailure)
    : std::ostream(nullptr), mName(std::move(name)),
      mDescriptor(open(mName.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kAsTheUserWants)),
      mBuffer(mDescriptor, std::move(onFailure)) {
  if (mDescriptor < 0) {
    throw std::runtime_error(ProblemText(std::generic_category().message(errno)));
  }
  rdbuf(&mBuffer);
}

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
