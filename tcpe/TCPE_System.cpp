#include <trel/TCPE_System.h>

#include <algorithm>
#include <string_view>

namespace {

template <std::size_t Size>
void CopyText(char (&target)[Size], const char* text) {
  char fresh[Size] = {}; // the text may be the target itself
  const std::string_view source = text != nullptr ? std::string_view(text) : std::string_view();
  source.copy(fresh, Size - 1);
  std::copy_n(fresh, Size, target);
}

} // namespace

void TCPE_System::SetSystemName(const char* name) { CopyText(mSystemName, name); }

void TCPE_System::SetHostName(const char* name) { CopyText(mHostName, name); }
