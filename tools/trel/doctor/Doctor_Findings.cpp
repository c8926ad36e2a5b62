#include "tools/trel/doctor/Doctor_Findings.h"

#include "tools/trel/common/JsonLine.h"

#include <trel/Cmn_Printable.h>

#include <nlohmann/json.hpp>

#include <iomanip>
#include <iostream>

void Doctor_Findings::Well(const std::string& check, const std::string& text) { Tell("ok", check, text, {}); }

void Doctor_Findings::Notice(const std::string& check, const std::string& text, const std::string& advice) {
  Tell("notice", check, text, advice);
}

void Doctor_Findings::Problem(const std::string& check, const std::string& text, const std::string& advice) {
  ++mProblems;
  Tell("problem", check, text, advice);
}

void Doctor_Findings::Tell(const char* status, const std::string& check, const std::string& text,
                           const std::string& advice) const {
  if (mIsJson) {
    using Json = nlohmann::ordered_json;
    const Json json = {{"check", check}, {"status", status}, {"text", text}, {"advice", advice}};
    std::cout << JsonLine(json) << '\n' << std::flush;
    return;
  }
  constexpr int kStatusWidth = 8;
  std::cout << std::left << std::setw(kStatusWidth) << status << Cmn_Printable(check + ": " + text) << '\n';
  if (!advice.empty()) {
    std::cout << std::string(kStatusWidth, ' ') << Cmn_Printable(advice) << '\n';
  }
  std::cout << std::flush;
}
