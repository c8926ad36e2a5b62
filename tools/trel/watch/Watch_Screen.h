#pragma once

#include <cstddef>
#include <string>
#include <vector>

struct Status_Snapshot;

/// What somebody who watches a host sees: the answer first, then what it rests on, then every system of the link.
class Watch_Screen {
public:
  Watch_Screen() = delete;

  struct Layout {
    std::size_t width = 80;
    std::size_t height = 0; ///< 0: as many lines as it takes
    bool hasColours = false;
    std::string hint = {}; ///< stands in the last line
  };

  /// Lines of at most the width, at most the height of them. What does not fit is left out where it is missed least:
  /// of the systems those first with which nothing is wrong.
  static std::vector<std::string> Lines(const Status_Snapshot& snapshot, const Layout& layout);
};
