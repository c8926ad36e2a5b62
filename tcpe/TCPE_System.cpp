#include <trel/TCPE_System.h>

#include <algorithm>
#include <cstring>

namespace {

template <std::size_t Size>
void CopyText(char (&target)[Size], const char* text) {
  std::memset(target, 0, Size);
  if (text != nullptr) {
    std::memcpy(target, text, std::min(std::strlen(text), Size - 1));
  }
}

} // namespace

void TCPE_System::SetSystemName(const char* name) { CopyText(mSystemName, name); }

void TCPE_System::SetHostName(const char* name) { CopyText(mHostName, name); }
