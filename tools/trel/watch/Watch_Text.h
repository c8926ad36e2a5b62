#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// UTF-8 text in the columns of a terminal.
class Watch_Text {
public:
  Watch_Text() = delete;

  /// How many columns it takes. Wide characters of East Asia take two.
  static std::size_t Width(const std::string& text);
  /// Cut to so many columns, with ".." in place of what is left out.
  static std::string Cut(const std::string& text, std::size_t width);
  /// Cut, or filled with spaces.
  static std::string Fit(const std::string& text, std::size_t width, bool isRightAligned = false);
  /// In lines of so many columns, broken between words.
  static std::vector<std::string> Wrap(const std::string& text, std::size_t width);
};
