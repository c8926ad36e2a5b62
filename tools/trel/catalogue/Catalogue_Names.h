#pragma once

#include <string>
#include <vector>

/// Says which of the names may have been meant, nearest first: ", near ones: A, B". Without any it gives `otherwise`.
std::string NearNamesText(const std::string& name, const std::vector<std::string>& names, const std::string& otherwise);

/// "A, B, C".
std::string Joined(const std::vector<std::string>& names);

std::string LowerCase(std::string text);
