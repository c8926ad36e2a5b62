#include "tools/trel/host/Host_TrialOptions.h"

#include "tools/trel/common/ExitStatus.h"

#include <trel/SPSStartupOption.h>

#include <CLI/CLI.hpp>

#include <csignal>
#include <cstdlib>
#include <string>

#include <unistd.h>
#if defined(__linux__)
#include <sys/prctl.h>
#endif

namespace {

constexpr const char* kNotListed = "";

void SetOption(const char* name, const std::optional<std::int32_t>& value) {
  if (value) {
    SPSSetStartupOption(name, std::to_string(*value).c_str());
  }
}

/// Where this system cannot be told, the end of the input ends the host.
void EndWith(pid_t parent) {
#if defined(__linux__)
  prctl(PR_SET_PDEATHSIG, SIGKILL);
#endif
  if (getppid() != parent) {
    std::_Exit(kExitFailure);
  }
}

} // namespace

void Host_TrialOptions::AddTo(CLI::App& command) {
  command.add_option("--clock-offset", clockOffset)->group(kNotListed);
  command.add_option("--clock-drift", clockDrift)->group(kNotListed);
  command.add_flag("--clock-samples", clockSamples)->group(kNotListed);
  command.add_option("--parent", parent)->group(kNotListed);
}

void Host_TrialOptions::Prepare() const {
  SetOption("SimulatedClockOffsetMilliseconds", clockOffset);
  SetOption("SimulatedClockDriftPPM", clockDrift);
  if (parent != 0) {
    EndWith(static_cast<pid_t>(parent));
  }
}
