#include "fuzz/FuzzInput.h"

#include <trel/Cmn_Assert.h>
#include <trel/SPSStartupOption.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

// The options file. Whatever it holds, a line that follows counts, and no line is reported twice.

namespace {

std::ptrdiff_t sReports = 0;

int OptionsFile() {
  const int file = memfd_create("options", 0);
  setenv("TREL_OPTIONS_FILE", ("/proc/self/fd/" + std::to_string(file)).c_str(), 1);
  Cmn_Assert::SetSink([](const char* /*text*/, std::int32_t /*line*/) { ++sReports; });
  return file;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const int sFile = OptionsFile();
  const std::string before = FuzzInput(data, size).Bytes(size);
  const std::string content = before + "\nLast = 7\n";
  if (ftruncate(sFile, 0) != 0 || pwrite(sFile, content.data(), content.size(), 0) < 0) {
    throw std::runtime_error("no room for an options file");
  }
  sReports = 0;
  PlatformSupport_Initialize(true);
  if (SPSStartupOptionSInt32("Last", 0) != 7 || sReports > std::count(content.begin(), content.end(), '\n')) {
    throw std::logic_error("a line has an effect on another one");
  }
  // A number that the file may give.
  const std::string text = SPSStartupOptionText("A", "5");
  const std::int32_t number = SPSStartupOptionSInt32("A", 5);
  if (std::all_of(text.begin(), text.end(), [](char digit) { return digit >= '0' && digit <= '9'; }) && !text.empty() &&
      text.size() < 10 && number != std::stoi(text)) {
    throw std::logic_error("a number is another one");
  }
  return 0;
}
