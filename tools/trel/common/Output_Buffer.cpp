#include "tools/trel/common/Output_Buffer.h"

#include <cerrno>
#include <system_error>
#include <utility>

#include <unistd.h>

Output_Buffer::Output_Buffer(int descriptor, OnFailure onFailure)
    : mDescriptor(descriptor), mOnFailure(std::move(onFailure)) {
  setp(mBytes.begin(), mBytes.end());
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
    const ssize_t count = write(mDescriptor, bytes.data(), bytes.size());
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      Fail(std::generic_category().message(errno));
    }
  }
  return !HasFailed();
}
