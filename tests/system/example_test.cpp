#include "tests/support/HostProcess.h"
#include "tests/support/Shell.h"
#include "tests/support/TestSystem.h"

#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

// Microseconds. Who began when it was told to, and not at the agreed moment, would be 100 ms early; how exactly systems
// start together on a quiet machine, the demonstration measures.
constexpr std::int64_t kAgreed = 50'000;

/// Builds the example as a host's maker does: against an installed library.
std::string BuildExample() {
  const std::string folder = TREL_BUILD "/example";
  std::filesystem::remove_all(folder);
  const auto [status, output] = RunShell("{ " TREL_CMAKE " --install " TREL_BUILD " --prefix " + folder +
                                         "/installed && " TREL_CMAKE " -S " TREL_EXAMPLES " -B " + folder +
                                         "/build " TREL_EXAMPLE_OPTIONS " -D CMAKE_PREFIX_PATH=" + folder +
                                         "/installed && " TREL_CMAKE " --build " + folder + "/build; } 2>&1");
  EXPECT_EQ(status, 0) << output;
  return folder + "/build/host";
}

TEST(Example, StartsTogetherWithAnotherHostAndHandsControlOver) {
  const std::string program = BuildExample();
  ASSERT_FALSE(HasFailure());
  const std::string port = std::to_string(TestPort());
  const std::string discoveryPort = std::to_string(TestPort() + 8'000);
  setenv("TREL_DiscoveryPort", discoveryPort.c_str(), 1);
  HostProcess master({"master", "Stage", "127.0.0.2", port}, program);
  HostProcess satellite({"satellite", "Left", "127.0.0.3", port}, program);
  HostProcess other({"host", "--satellite", "--name", "Right", "--address", "127.0.0.4", "--port", port, "--json"});
  master.AwaitText("Left.*: its clock is locked");
  master.AwaitText("Right.*: its clock is locked");

  satellite.Send("time");
  EXPECT_GT(std::stoll(satellite.AwaitText("running time: (\\d+) us")), 0);
  std::string again; // behind what was told before
  for (HostProcess* conductor : {&master, &satellite}) {
    conductor->Send("prime");
    for (const char* primed : {"\nprimed, told by", "Left \\(\\S+\\): primed", "Right \\(\\S+\\): primed"}) {
      master.AwaitText(again + primed);
    }
    satellite.AwaitText(again + "Stage \\(\\S+\\): primed");
    conductor->Send("start");
    satellite.AwaitText(again + "\nstarted, \\d+ us");
    const std::string spread = master.AwaitText(again + "\nstarted, [^]*3 systems started within (\\d+) us");
    ExpectWithin("start spread, us", std::stoll(spread), kAgreed);
    EXPECT_LT(std::abs(other.Await({{"event", "started"}}).at("late_us").get<std::int64_t>()), kAgreed);
    again = "\nstarted, [^]*";
    conductor->Send("stop");
    other.Await({{"event", "stopped"}});
    if (conductor == &master) {
      satellite.Send("control");
      satellite.AwaitText("This system is in control");
      master.Send("prime");
      master.AwaitText("this system is not in control");
    }
  }
  EXPECT_EQ(satellite.End(), 0) << satellite.Text();
  master.AwaitText("Left.* has left the link");
  EXPECT_EQ(master.End(), 0) << master.Text();
}

} // namespace
