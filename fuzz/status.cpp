#include "fuzz/FuzzInput.h"
#include "tools/trel/common/Status_Snapshot.h"
#include "tools/trel/watch/Watch_Screen.h"
#include "tools/trel/watch/Watch_Text.h"

#include <trel/Cmn_Printable.h>

#include <nlohmann/json.hpp>

#include <stdexcept>
#include <string>

// A line in which a host tells its state, and the screen that shows it.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto json = nlohmann::ordered_json::parse(FuzzInput(data, size).Bytes(size), nullptr, false);
  if (!json.is_object()) {
    return 0;
  }
  const Status_Snapshot snapshot = Status_Snapshot::FromJson(json);
  for (const std::size_t width : {30U, 80U}) {
    const auto lines = Watch_Screen::Lines(snapshot, {.width = width, .height = width / 4});
    if (lines.size() > width / 4) {
      throw std::logic_error("more lines than the screen has");
    }
    for (const std::string& line : lines) {
      if (Watch_Text::Width(line) > width || Cmn_Printable(line) != line) {
        throw std::logic_error("a line that a screen cannot show: " + line);
      }
    }
  }
  const auto told = snapshot.ToJson();
  if (Status_Snapshot::FromJson(told).ToJson() != told) {
    throw std::logic_error("it is told otherwise than it was heard");
  }
  return 0;
}
