#include "fuzz/FuzzInput.h"
#include "tools/trel/report/Report_Collector.h"
#include "tools/trel/report/Report_Page.h"

#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

// A recording, and the page that is made from it: what the recording says is text there and nothing else.

namespace {

/// None without an event.
std::string PageOf(const std::string& recording) {
  std::istringstream in(recording);
  Report_Collector collector;
  collector.ReadFrom(in);
  std::ostringstream page;
  if (!collector.IsEmpty()) {
    Report_WritePage(page, collector.Data());
  }
  return page.str();
}

std::size_t Count(std::string_view text, std::string_view what) {
  std::size_t count = 0;
  for (std::size_t at = 0; (at = text.find(what, at)) != std::string_view::npos; at += what.size()) {
    ++count;
  }
  return count;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string sPlain = PageOf(R"({"event": "any", "time_us": 0})");
  const std::string page = PageOf(FuzzInput(data, size).Bytes(size));
  for (const std::string_view part : {"<script", "</script", "<img", "\x1b", "\u202e", "\u2028"}) {
    if (!page.empty() && Count(page, part) != Count(sPlain, part)) {
      throw std::logic_error("a recording put more than text on the page");
    }
  }
  return 0;
}
