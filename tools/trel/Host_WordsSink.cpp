#include "Host_WordsSink.h"

#include "Host_Event.h"
#include "Texts.h"

#include <iomanip>
#include <iostream>

namespace {

constexpr const char* kPrompt = "trel> ";
constexpr const char* kEraseLine = "\r\x1b[K";

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
    std::cout << PrintableLines(event.text) << '\n';
  }
  std::cout << (mPrompts ? kPrompt : "") << std::flush;
}
