#pragma once

#include <nlohmann/json.hpp>

#include <string>

/// One line of JSON for a program, a recording or a page. Names in it may come from the network: what is no UTF-8 is
/// replaced, and what would steer a display becomes a question mark.
std::string JsonLine(const nlohmann::ordered_json& json);
