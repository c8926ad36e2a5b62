// A host of the link: "host master NAME" on one machine, "host satellite NAME" on the others.
// It takes commands, one on a line: prime, start, stop, control, time.
#include <trel/Trel.h>

#include <chrono>
#include <iostream>
#include <string>
#include <thread>

namespace {

void Say(const std::string& text) { std::cout << (text.empty() ? text : text + '\n') << std::flush; }

/// Begins at the agreed moment, unless it is stopped before.
void Play(Trel_LinkSession& session, const Trel_AgreedStart& start, const std::stop_token& stop) {
  constexpr std::int64_t kNear = 20'000; // microseconds
  const Sys_ThreadPriority raised;       // where the system permits it
  while (!stop.stop_requested()) {
    const auto begin = session.GetHostTime(start.runningTime); // anew each time, for it gets better
    if (!begin) {
      return session.ReportNoStart(start.runningTime, "the clock has lost its lock");
    }
    if (*begin - Sys_Clock::Microseconds() < kNear) {
      Sys_Clock::WaitUntil(*begin); // then the audio begins, at start.position
      return session.ReportStart(start.runningTime, Sys_Clock::Microseconds());
    }
    std::this_thread::sleep_for(std::chrono::microseconds(kNear / 2));
  }
}

} // namespace

int main(int argc, char** argv) {
  const std::string role = argc > 2 ? argv[1] : "";
  if (role != "master" && role != "satellite") {
    Say("usage: host master|satellite NAME [ADDRESS PORT]");
    return 2;
  }
  Trel_Init::Init();
  Trel_CommManager::SetSystemName(argv[2]);
  Trel_CommPreferences* const preferences = Trel_CommPreferences::Inst();
  if (std::uint32_t address = 0; argc > 4 && Sys_Socket::EncodeIPAddress(argv[3], &address)) {
    preferences->SetLocalInterfaceAddress(address); // otherwise the library chooses
    preferences->SetCommunicationPort(static_cast<std::uint16_t>(std::stoi(argv[4])));
  }

  std::jthread player; // belongs to the callbacks, of which one is called at a time
  Trel_LinkSession session({.isMaster = role == "master",
                            .onEvent = [](const Trel_LinkEvent& event) { Say(event.text); },
                            .onPrime = [](const Trel_PlayRange& /*range*/) { return true; }, // once the audio is loaded
                            .onStart =
                                [&](const Trel_AgreedStart& start) {
                                  player = std::jthread(
                                      [&session, start](const std::stop_token& stop) { Play(session, start, stop); });
                                  return true;
                                },
                            .onStop = [&player] { player = {}; }});
  const std::int32_t status = Trel_CommManager::Initialize(preferences, &Trel_LinkSession::OnNetworkError);
  if (status != eTCPE_Status_Success || !session.Start()) {
    Say(std::string("cannot start: ") + TCPE_ErrorText(static_cast<ETCPE_Status>(status)));
    return 1;
  }
  for (std::string line; std::getline(std::cin, line);) {
    if (line == "prime") {
      Say(Trel_LinkSession::Explain(session.Prime({.in = 0, .out = 60'000'000})));
    } else if (line == "start") {
      Say(Trel_LinkSession::Explain(session.StartPlayback().refusal)); // as soon as everybody can
    } else if (line == "stop") {
      Say(Trel_LinkSession::Explain(session.StopPlayback()));
    } else if (line == "control") {
      Say(session.RequestControl() == Trel_LinkSession::ControlAnswer::granted ? "" : "control is not given");
    } else if (line == "time") {
      Say("running time: " + std::to_string(session.GetRunningTime().value_or(-1)) + " us");
    }
  }
  session.Stop();
  player = {};
  Trel_CommManager::Terminate();
}
