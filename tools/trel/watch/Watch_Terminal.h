#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <termios.h>

/// The terminal while the screen is shown. What was on it before comes back when the object ends.
class Watch_Terminal {
public:
  /// Standard output is a terminal.
  Watch_Terminal();
  ~Watch_Terminal();
  Watch_Terminal(const Watch_Terminal&) = delete;
  Watch_Terminal& operator=(const Watch_Terminal&) = delete;

  static bool IsThere();
  /// False when the user does not want colours (NO_COLOR), or the terminal has none.
  static bool HasColours();
  /// As the user has made it by now.
  static std::size_t Width();
  static std::size_t Height();

  /// Replaces what is shown.
  void Show(const std::vector<std::string>& lines);
  /// For poll: readable when a key has been pressed; -1 when none can be.
  int Keys() const;
  /// Whether a key has been pressed that ends the screen: q, or the end of the input.
  bool HasQuit() const;

private:
  termios mBefore = {};
  bool mHasKeys = false; // standard input is the terminal too
};
