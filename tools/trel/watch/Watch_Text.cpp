#include "tools/trel/watch/Watch_Text.h"

#include <sstream>

namespace {

/// The code point at a position of valid UTF-8, which is moved behind it.
char32_t TakeCharacter(const std::string& text, std::size_t& position) {
  constexpr unsigned char kMultiple = 0x80;
  constexpr unsigned char kFollows = 0xc0; // mask of a byte that continues a character
  const auto first = static_cast<unsigned char>(text[position++]);
  if (first < kMultiple) {
    return first;
  }
  constexpr unsigned kPayloadBits = 6;
  const unsigned lead = first >= 0xf0 ? 0x07 : first >= 0xe0 ? 0x0f : 0x1f;
  char32_t character = first & lead;
  while (position < text.size() && (static_cast<unsigned char>(text[position]) & kFollows) == kMultiple) {
    character = (character << kPayloadBits) | (static_cast<unsigned char>(text[position++]) & 0x3fU);
  }
  return character;
}

std::size_t WidthOf(char32_t character) {
  const bool isCombining =
      (character >= 0x300 && character <= 0x36f) || character == 0x200d || (character >= 0xfe00 && character <= 0xfe0f);
  const bool isWide = (character >= 0x1100 && character <= 0x115f) || (character >= 0x2e80 && character <= 0xa4cf) ||
                      (character >= 0xac00 && character <= 0xd7a3) || (character >= 0xf900 && character <= 0xfaff) ||
                      (character >= 0xfe30 && character <= 0xfe6f) || (character >= 0xff00 && character <= 0xff60) ||
                      (character >= 0x1f300 && character <= 0x1faff) || (character >= 0x20000 && character <= 0x3fffd);
  return isCombining ? 0 : isWide ? 2 : 1;
}

} // namespace

std::size_t Watch_Text::Width(const std::string& text) {
  std::size_t width = 0;
  for (std::size_t position = 0; position < text.size();) {
    width += WidthOf(TakeCharacter(text, position));
  }
  return width;
}

std::string Watch_Text::Cut(const std::string& text, std::size_t width) {
  if (Width(text) <= width) {
    return text;
  }
  const std::string mark = width > 4 ? ".." : "";
  std::size_t end = 0;
  std::size_t taken = 0;
  for (std::size_t position = 0; position < text.size(); end = position) {
    taken += WidthOf(TakeCharacter(text, position));
    if (taken > width - mark.size()) {
      break;
    }
  }
  return text.substr(0, end) + mark;
}

std::string Watch_Text::Fit(const std::string& text, std::size_t width, bool isRightAligned) {
  const std::string cut = Cut(text, width);
  const std::string space(width - Width(cut), ' ');
  return isRightAligned ? space + cut : cut + space;
}

std::vector<std::string> Watch_Text::Wrap(const std::string& text, std::size_t width) {
  std::vector<std::string> lines(1);
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    std::string& line = lines.back();
    if (line.empty()) {
      line = Cut(word, width);
    } else if (Width(line) + 1 + Width(word) <= width) {
      line += ' ' + word;
    } else {
      lines.push_back(Cut(word, width));
    }
  }
  return lines;
}
