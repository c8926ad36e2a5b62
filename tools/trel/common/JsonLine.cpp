#include "tools/trel/common/JsonLine.h"

#include <trel/Cmn_Printable.h>

std::string JsonLine(const nlohmann::ordered_json& json) {
  return Cmn_Printable(json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}
