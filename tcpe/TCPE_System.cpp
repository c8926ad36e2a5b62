#include <trel/TCPE_System.h>

#include <algorithm>
#include <cstring>

namespace {

template <std::size_t Size>
void CopyText(char (&target)[Size], const char* text) {
  char fresh[Size] = {}; // the text may be the target itself
  if (text != nullptr) {
    std::memcpy(fresh, text, std::min(std::strlen(text), Size - 1));
  }
  std::memcpy(target, fresh, Size);
}

} // namespace

void TCPE_System::SetSystemName(const char* name) { CopyText(mSystemName, name); }

void TCPE_System::SetHostName(const char* name) { CopyText(mHostName, name); }
