#include "fuzz/FuzzInput.h"
#include "tools/trel/host/Host_Commands.h"
#include "tools/trel/host/Host_Console.h"
#include "tools/trel/host/Host_EventSink.h"
#include "tools/trel/host/Host_Events.h"
#include "tools/trel/host/Host_Input.h"
#include "tools/trel/host/Host_Options.h"
#include "tools/trel/host/Host_Session.h"

#include <trel/SPSStartupOption.h>

#include <csignal>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

// The lines that a host is commanded with, at a host without a link. A signal has come before they are carried out, so
// nothing waits.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const int sFile = [] {
    PlatformSupport_Initialize(false);
    const int file = memfd_create("input", 0);
    dup2(file, STDIN_FILENO);
    return file;
  }();
  if (ftruncate(sFile, 0) != 0 || pwrite(sFile, data, size, 0) < 0 || lseek(sFile, 0, SEEK_SET) != 0) {
    throw std::runtime_error("no room for an input");
  }
  Host_Input input;
  std::vector<std::string> lines;
  std::string line;
  for (auto outcome = input.ReadLine(&line); outcome != Host_Input::Outcome::end; outcome = input.ReadLine(&line)) {
    if (outcome == Host_Input::Outcome::line) {
      lines.push_back(line);
    }
  }
  raise(SIGTERM);
  input.Pause({});
  Host_Events events({});
  Host_Options options;
  options.isMaster = size % 2 == 0;
  Host_Session session(options, events);
  Host_Commands commands(session, input, nullptr);
  Host_Console console(commands.Table(), events);
  for (const std::string& each : lines) {
    console.Execute(each);
  }
  return 0;
}
