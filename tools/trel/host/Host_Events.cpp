#include "tools/trel/host/Host_Events.h"

#include "tools/trel/host/Host_EventSink.h"

#include <utility>

namespace {

constexpr std::chrono::milliseconds kPatience{1500}; // with who reads what is told, all sinks together

}

Host_Events::Host_Events(std::vector<std::unique_ptr<Host_EventSink>> sinks) {
  for (std::unique_ptr<Host_EventSink>& sink : sinks) {
    mQueues.push_back(std::make_unique<Host_EventQueue>(std::move(sink)));
  }
}

void Host_Events::Tell(const Host_Event& event) {
  for (const auto& queue : mQueues) {
    queue->Push(event);
  }
}

bool Host_Events::Finish() {
  for (const auto& queue : mQueues) {
    queue->End();
  }
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  bool isWritten = true;
  for (const auto& queue : mQueues) {
    isWritten = queue->AwaitEnd(deadline) && isWritten;
  }
  return isWritten;
}
