#include <trel/Cmn_Printable.h>

#include <algorithm>
#include <cstddef>
#include <iterator>

namespace {

struct Range {
  char32_t first;
  char32_t last;
};

/// Without a place of their own in a line, so that they steer how the rest is shown: they turn its direction, break
/// it, or hide in it. The joiners, which some scripts are written with, are none of these.
constexpr Range kSteering[] = {{0x00, 0x1f},     {0x7f, 0x9f},     {0x00ad, 0x00ad}, {0x061c, 0x061c},
                               {0x180e, 0x180e}, {0x200b, 0x200b}, {0x200e, 0x200f}, {0x2028, 0x202e},
                               {0x2060, 0x206f}, {0xfeff, 0xfeff}, {0xfff9, 0xfffb}, {0xe0000, 0xe007f}};

struct Character {
  std::size_t size = 0; ///< bytes; 0 when the text does not begin with a character
  char32_t code = 0;
};

/// Of the text's UTF-8. What is longer than it need be, a half of a pair, and what lies beyond the last one is none.
Character FirstOf(std::string_view text) {
  const auto byte = [text](std::size_t index) {
    return index < text.size() ? static_cast<unsigned char>(text[index]) : static_cast<unsigned char>(0);
  };
  const unsigned char first = byte(0);
  if (first < 0x80) {
    return {1, first};
  }
  static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  const std::size_t size = first < 0xc0 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : first < 0xf8 ? 4 : 0;
  char32_t code = first & (0x7fU >> size);
  for (std::size_t index = 1; index < size; ++index) {
    if ((byte(index) & 0xc0U) != 0x80U) {
      return {};
    }
    code = code << 6U | (byte(index) & 0x3fU);
  }
  const bool isHalf = 0xd800 <= code && code <= 0xdfff;
  return size != 0 && kSmallest[size] <= code && code <= 0x10ffff && !isHalf ? Character{size, code} : Character();
}

bool Steers(char32_t code) {
  return std::any_of(std::begin(kSteering), std::end(kSteering),
                     [code](const Range& range) { return range.first <= code && code <= range.last; });
}

} // namespace

std::string Cmn_Printable(std::string_view text) {
  std::string printable;
  while (!text.empty()) {
    const Character character = FirstOf(text);
    const bool prints = character.size != 0 && !Steers(character.code);
    printable += prints ? text.substr(0, character.size) : std::string_view("?");
    text.remove_prefix(std::max<std::size_t>(character.size, 1));
  }
  return printable;
}
