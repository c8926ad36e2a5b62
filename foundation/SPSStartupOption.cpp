#include <trel/Cmn_Assert.h>
#include <trel/Cmn_NumberToText.h>
#include <trel/SPSStartupOption.h>

#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using Values = std::map<std::string, std::string, std::less<>>;

struct Options {
  std::mutex mMutex;
  Values mProcess;
  Values mFile;
  bool mFileRead = false;
};

// Never destroyed: threads of the library may still read options while the process ends.
Options& Shared() {
  static auto* const sOptions = new Options;
  return *sOptions;
}

void Report(const std::string& fault, std::int32_t line) {
  Cmn_Assert::HandleMagicAssert(false, (fault + R"(@$^$@..\SPSStartupOption)").c_str(), line);
}

std::optional<std::string> FromEnvironment(const std::string& variable) {
  const char* const value = std::getenv(variable.c_str());
  return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

std::filesystem::path OptionsFile() {
  if (const auto file = FromEnvironment("TREL_OPTIONS_FILE")) {
    return *file;
  }
  if (const auto folder = FromEnvironment("XDG_CONFIG_HOME"); folder && !folder->empty()) {
    return std::filesystem::path(*folder) / "trel" / "options";
  }
  if (const auto home = FromEnvironment("HOME"); home && !home->empty()) {
    return std::filesystem::path(*home) / ".config" / "trel" / "options";
  }
  return {};
}

std::string_view Trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r";
  const std::size_t begin = text.find_first_not_of(kBlanks);
  return begin == std::string_view::npos ? "" : text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin);
}

bool IsName(std::string_view text) {
  constexpr std::string_view kNameCharacters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";
  return !text.empty() && text.find_first_not_of(kNameCharacters) == std::string_view::npos;
}

Values ReadOptionsFile() {
  Values values;
  const std::filesystem::path path = OptionsFile();
  std::error_code error;
  if (path.empty() || !std::filesystem::exists(path, error)) {
    return values;
  }
  std::ifstream file(path);
  std::string line;
  std::int32_t number = 0;
  while (std::getline(file, line)) {
    ++number;
    const std::string_view content = Trimmed(line);
    if (content.empty() || content.front() == '#') {
      continue;
    }
    const std::size_t equals = content.find('=');
    const std::string_view name = Trimmed(content.substr(0, equals));
    if (equals == std::string_view::npos || !IsName(name)) {
      Report(path.string() + ":" + Cmn_Int32ToString(number) + ": not of the form \"name = value\"", __LINE__);
      continue;
    }
    values.insert_or_assign(std::string(name), std::string(Trimmed(content.substr(equals + 1))));
  }
  if (!file.eof()) {
    Report(path.string() + ": cannot be read", __LINE__);
  }
  return values;
}

// Reading and its reports stay outside the lock, so that a sink may ask for options.
void LoadFile(Values values, bool replace) {
  Options& options = Shared();
  const std::lock_guard lock(options.mMutex);
  if (replace || !options.mFileRead) {
    options.mFile = std::move(values);
    options.mFileRead = true;
  }
}

bool IsFileRead() {
  Options& options = Shared();
  const std::lock_guard lock(options.mMutex);
  return options.mFileRead;
}

std::optional<std::string> Find(const Values& values, std::string_view name) {
  const auto found = values.find(name);
  return found != values.end() ? std::optional<std::string>(found->second) : std::nullopt;
}

std::optional<std::string> Value(const std::string& name) {
  if (!IsFileRead()) {
    LoadFile(ReadOptionsFile(), false);
  }
  Options& options = Shared();
  const std::lock_guard lock(options.mMutex);
  if (auto value = Find(options.mProcess, name)) {
    return value;
  }
  if (auto value = FromEnvironment("TREL_" + name)) {
    return value;
  }
  return Find(options.mFile, name);
}

} // namespace

void PlatformSupport_Initialize(bool readOptionsFile) {
  LoadFile(readOptionsFile ? ReadOptionsFile() : Values(), true);
}

std::int32_t SPSStartupOptionSInt32(const char* name, std::int32_t defaultValue) {
  const std::optional<std::string> text = Value(name);
  if (!text) {
    return defaultValue;
  }
  std::int32_t number = 0;
  const char* const end = text->data() + text->size();
  const auto [parsedEnd, error] = std::from_chars(text->data(), end, number);
  if (error != std::errc() || parsedEnd != end) {
    Report(std::string("start-up option ") + name + ": \"" + *text + "\" is no 32-bit number, using the default",
           __LINE__);
    return defaultValue;
  }
  return number;
}

std::string SPSStartupOptionText(const char* name, const char* defaultValue) {
  return Value(name).value_or(defaultValue != nullptr ? defaultValue : "");
}

void SPSSetStartupOption(const char* name, const char* value) {
  Options& options = Shared();
  const std::lock_guard lock(options.mMutex);
  if (value != nullptr) {
    options.mProcess.insert_or_assign(name, value);
  } else if (const auto found = options.mProcess.find(std::string_view(name)); found != options.mProcess.end()) {
    options.mProcess.erase(found);
  }
}
