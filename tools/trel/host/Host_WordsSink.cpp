#include "tools/trel/host/Host_WordsSink.h"

#include "tools/trel/common/Output_Buffer.h"
#include "tools/trel/host/Host_Event.h"

#include <trel/Cmn_Printable.h>

#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>

namespace {

constexpr const char* kPrompt = "trel> ";
constexpr const char* kEraseLine = "\r\x1b[K";

/// The names in a text are printable already; its lines stay.
std::string Printable(const std::string& text) {
  std::string printable;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    printable += (printable.empty() ? "" : "\n") + Cmn_Printable(line);
  }
  return printable;
}

} // namespace

Host_WordsSink::Host_WordsSink(bool isVerbose) : mIsVerbose(isVerbose), mStart(Sys_Clock::RawMicroseconds()) {}

void Host_WordsSink::Take(const Host_Event& event) {
  const bool isPrompt = event.kind == "prompt";
  if (!isPrompt && (event.text.empty() || (event.isDetail && !mIsVerbose))) {
    return;
  }
  if (isPrompt) {
    mPrompts = true;
  } else {
    if (event.isAnswer) {
      mPrompts = false; // the prompt that the command was typed at is past; another one follows
    } else if (mPrompts) {
      std::cout << kEraseLine;
    }
    if (!event.isAnswer) {
      constexpr double kMicrosecondsOfSecond = 1e6;
      std::cout << '[' << std::fixed << std::setprecision(3) << std::setw(8)
                << static_cast<double>(event.rawTime - mStart) / kMicrosecondsOfSecond << " s] ";
    }
    std::cout << Printable(event.text) << '\n';
  }
  std::cout << (mPrompts ? kPrompt : "") << std::flush;
}

void Host_WordsSink::GiveUp() { Output_Buffer::GiveUp(std::cout); }
