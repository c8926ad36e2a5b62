#include <trel/Cmn_Printable.h>

#include <algorithm>
#include <cstddef>

namespace {

bool IsContinuation(unsigned char byte) { return (byte & 0xc0U) == 0x80U; }

/// Bytes of the UTF-8 character that a text begins with; 0 when it is no such character, or one that controls.
std::size_t CharacterSize(std::string_view text) {
  const auto byte = [text](std::size_t index) {
    return index < text.size() ? static_cast<unsigned char>(text[index]) : static_cast<unsigned char>(0);
  };
  const unsigned char first = byte(0);
  constexpr unsigned char kDelete = 0x7f;
  if (first <= kDelete) {
    return first < ' ' || first == kDelete ? 0 : 1;
  }
  // By the first byte; those left out would be overlong, or beyond the last character there is.
  const std::size_t size = first < 0xc2 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : first < 0xf5 ? 4 : 0;
  for (std::size_t index = 1; index < size; ++index) {
    if (!IsContinuation(byte(index))) {
      return 0;
    }
  }
  const bool isControl = first == 0xc2 && byte(1) < 0xa0;
  return isControl ? 0 : size;
}

} // namespace

std::string Cmn_Printable(std::string_view text) {
  std::string printable;
  while (!text.empty()) {
    const std::size_t size = CharacterSize(text);
    printable += size == 0 ? std::string_view("?") : text.substr(0, size);
    text.remove_prefix(std::max<std::size_t>(size, 1));
  }
  return printable;
}
