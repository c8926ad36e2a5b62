#include "tools/trel/host/Host_Arguments.h"

#include "tools/trel/host/Host_UsageError.h"

#include <trel/Sys_Socket.h>

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <utility>

namespace {

constexpr const char* kBlanks = " \t\r";

struct Unit {
  const char* name;
  double microseconds;
};
constexpr Unit kUnits[] = {{"us", 1}, {"ms", 1e3}, {"s", 1e6}, {"min", 60e6}};
constexpr double kLongestTime = 365.0 * 24 * 3600 * 1e6; // microseconds; a year

} // namespace

Host_Arguments::Host_Arguments(const std::string& text) : mText(text) {
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    mWords.push_back(word);
  }
}

bool Host_Arguments::Skip(const char* word) {
  if (!IsNext(word)) {
    return false;
  }
  TakeWord(word);
  return true;
}

std::string Host_Arguments::TakeWord(const char* what) {
  if (mWords.empty()) {
    throw Host_UsageError(std::string(what) + " is missing");
  }
  std::string word = std::move(mWords.front());
  mWords.pop_front();
  mText.erase(0, mText.find(word) + word.size());
  return word;
}

bool Host_Arguments::TakeSwitch() {
  const std::string word = TakeWord("on or off");
  if (word != "on" && word != "off") {
    throw Host_UsageError("\"" + word + "\" is neither on nor off");
  }
  return word == "on";
}

std::uint32_t Host_Arguments::TakeAddress() {
  const std::string word = TakeWord("an address");
  std::uint32_t address = 0;
  if (!Sys_Socket::EncodeIPAddress(word.c_str(), &address)) {
    throw Host_UsageError("\"" + word + "\" is no address; write one like 192.168.1.10 (see systems)");
  }
  return address;
}

std::int64_t Host_Arguments::TakeNumber(const char* what) {
  const std::string word = TakeWord(what);
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
  if (error != std::errc() || end != word.data() + word.size()) {
    throw Host_UsageError("\"" + word + "\" is no number");
  }
  return number;
}

std::int64_t Host_Arguments::TakeTime(const char* what) {
  const std::string word = TakeWord(what);
  const std::size_t numberSize = word.find_first_not_of("0123456789.");
  const std::string number = word.substr(0, numberSize);
  const std::string unit = numberSize == std::string::npos ? "" : word.substr(numberSize);
  char* end = nullptr;
  const double value = std::strtod(number.c_str(), &end);
  if (!number.empty() && *end == '\0') {
    if (unit.empty() && value == 0) {
      return 0;
    }
    for (const Unit& candidate : kUnits) {
      if (unit == candidate.name && value * candidate.microseconds <= kLongestTime) {
        return std::llround(value * candidate.microseconds);
      }
    }
  }
  throw Host_UsageError("\"" + word + "\" is no time; write one like 500ms, 2s or 1.5s");
}

std::string Host_Arguments::TakeText(const char* what) {
  if (mWords.empty()) {
    throw Host_UsageError(std::string(what) + " is missing");
  }
  mWords.clear();
  const std::string text = std::exchange(mText, {});
  const std::size_t begin = text.find_first_not_of(kBlanks);
  std::string taken = text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
  const bool isQuoted = taken.size() > 2 && taken.front() == '"' && taken.back() == '"';
  return isQuoted ? taken.substr(1, taken.size() - 2) : taken; // as one would write it for a shell
}

void Host_Arguments::ExpectEnd() const {
  if (!mWords.empty()) {
    throw Host_UsageError("\"" + mWords.front() + "\" is too much");
  }
}
