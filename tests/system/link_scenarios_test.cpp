#include "tests/support/HostProcess.h"
#include "tests/support/Sanitized.h"

#include <trel/Sys_Clock.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <deque>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

namespace {

using Json = HostProcess::Json;
using Arguments = HostProcess::Arguments;

// Marks, microseconds.
constexpr std::int64_t kTimeToLink = 10'000'000;
constexpr std::int64_t kTimeToNoticeLoss = 4'000'000;

const std::string kMaster = "127.0.9.2";
std::string Address(int satellite) { return "127.0.9." + std::to_string(10 + satellite); }

Arguments Master(const Arguments& more = {}) {
  return HostProcess::OnOwnPorts({"host", "--master", "--address", kMaster}, more);
}
/// It searches for the master, unless told otherwise.
Arguments Satellite(int number, const Arguments& more = {}) {
  return HostProcess::OnOwnPorts({"host", "--satellite", "--address", Address(number)}, more);
}

std::int64_t TimeOf(const Json& event) { return event.is_object() ? event.at("time_us").get<std::int64_t>() : 0; }

/// What a host has told so far that has all members of a pattern.
std::vector<Json> Told(HostProcess& host, const Json& pattern) {
  host.Command("state"); // all before it has been read then
  std::vector<Json> told;
  std::copy_if(host.Objects().begin(), host.Objects().end(), std::back_inserter(told), [&pattern](Json object) {
    const Json before = object;
    object.merge_patch(pattern);
    return object == before;
  });
  return told;
}

std::int64_t PeakKiB(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) {
      return std::stoll(line.substr(line.find_first_of("0123456789")));
    }
  }
  return 0;
}

/// Processor time that a process has used, microseconds.
std::int64_t ProcessorTime(pid_t process) {
  clockid_t clock = 0;
  timespec time = {};
  EXPECT_EQ(clock_getcpuclockid(process, &clock) + clock_gettime(clock, &time), 0);
  return std::int64_t{time.tv_sec} * 1'000'000 + time.tv_nsec / 1000;
}

std::set<std::string> Discover(const Arguments& more) {
  HostProcess discover(HostProcess::OnOwnPorts({"discover"}, more));
  EXPECT_EQ(discover.End(), 0) << discover.Text();
  std::set<std::string> addresses;
  for (const Json& system : discover.Objects()) {
    addresses.insert(system.at("address").get<std::string>());
  }
  return addresses;
}

TEST(LinkScenario, AFullLinkComesTogetherAndIdles) {
  constexpr int kSatellites = kIsSanitized ? 12 : 64; // a sanitized process is some ten times as big and slow
  HostProcess master(Master({"--max-satellites", std::to_string(kSatellites)}));
  master.Await({{"event", "ready"}});
  std::deque<HostProcess> satellites;
  std::set<std::string> addresses;
  std::int64_t lastStarted = 0;
  for (int satellite = 0; satellite < kSatellites; ++satellite) {
    addresses.insert(Address(satellite));
    lastStarted = Sys_Clock::RawMicroseconds();
    satellites.emplace_back(Satellite(satellite));
  }
  std::int64_t lastLinked = 0;
  for (int satellite = 0; satellite < kSatellites; ++satellite) {
    lastLinked = TimeOf(master.Await({{"event", "linked"}}));
  }
  ExpectWithin("until all are linked, from the start of the last process, us", lastLinked - lastStarted, kTimeToLink);
  master.Command("wait locked");

  const std::int64_t begin = Sys_Clock::RawMicroseconds();
  const std::int64_t usedBefore = ProcessorTime(master.Id());
  for (int query = 0; query < 3; ++query) {
    ASSERT_EQ(Discover({"--satellites", "--address", "127.0.9.99"}), addresses) << query;
  }
  const std::int64_t used = ProcessorTime(master.Id()) - usedBefore;
  ExpectWithin("processor use of the idle master, thousandths of a core",
               used * 1000 / (Sys_Clock::RawMicroseconds() - begin), kIsSanitized ? 800 : 400);
  ExpectWithin("memory of the master, KiB", PeakKiB(master.Id()), kIsSanitized ? 1'048'576 : 65'536);
  EXPECT_EQ(Told(master, {{"event", "lost"}}).size(), 0U);
  EXPECT_EQ(Told(master, {{"event", "linked"}}).size(), addresses.size());
}

TEST(LinkScenario, AWrongSecretIsRefusedAndHindersNobodyElse) {
  const std::string folder = testing::TempDir() + "trel_secrets_" + std::to_string(getpid());
  std::filesystem::create_directory(folder);
  const std::string right = folder + "/right", wrong = folder + "/wrong";
  for (const std::string& file : {right, wrong}) {
    HostProcess maker({"secret", file});
    ASSERT_EQ(maker.End(), 0) << maker.Text();
  }
  HostProcess master(Master({"--secret-file", right}));
  master.Await({{"event", "ready"}});
  HostProcess guesser(Satellite(0, {"--connect", kMaster, "--secret-file", wrong}));
  const Json words = guesser.Await({{"event", "link_refused"}});
  EXPECT_NE(words.value("text", "").find("the same shared secret"), std::string::npos) << words;
  const Json heard = master.Await({{"event", "network_error"}, {"address", Address(0)}});
  EXPECT_NE(heard.value("text", "").find("the same shared secret"), std::string::npos) << heard;
  HostProcess rightful(Satellite(1, {"--connect", kMaster, "--secret-file", right}));
  const Json linked = master.Await({{"event", "linked"}, {"address", Address(1)}});
  ExpectWithin("until a rightful system is linked meanwhile, us", TimeOf(linked) - TimeOf(heard), 4'000'000);
  EXPECT_TRUE(Told(master, {{"event", "linked"}, {"address", Address(0)}}).empty());
  std::filesystem::remove_all(folder);
}

TEST(LinkScenario, NobodyBeginsByTheTimeOfAMasterThatIsGone) {
  std::optional<HostProcess> master(std::in_place, Master());
  HostProcess satellite(Satellite(0, {"--connect", kMaster}));
  satellite.Command("wait locked");
  master->Command("prime");
  master->Send("start in 60s");
  const Json agreed = master->Await({{"event", "start"}});
  satellite.Await({{"event", "start"}, {"running_time", agreed.at("running_time")}});
  master.reset();
  master.emplace(Master()); // its running time is less: by that of the other one its starts would be over
  satellite.Await({{"event", "start_failed"}, {"running_time", agreed.at("running_time")}});

  master->Command("wait linked 1");
  master->Command("prime");
  master->Send("start in 500ms");
  const Json start = master->Await({{"event", "start"}});
  master->Await({{"event", "together"}, {"running_time", start.at("running_time")}});
  for (const Json& started : Told(satellite, {{"event", "started"}})) {
    EXPECT_GE(TimeOf(started), TimeOf(start) + start.value("in_us", 0));
  }
  EXPECT_EQ(Told(satellite, {{"event", "clock"}, {"on", false}}).size(), 1U);
}

// --- over a bridge --------------------------------------------------------------------------------------------------

/// A network of the test's own, which ends with it: machines, each with an adaptor, that are joined by a switch.
class Bridged : public testing::Test {
protected:
  static constexpr int kMachines =
      4; // the master at 10.79.0.1, satellites at 10.79.0.2 and 10.79.0.3, and one without a host

  void SetUp() override {
    mHome = OpenPresent();
    const bool hasSwitch = unshare(CLONE_NEWNET) == 0 && Run("ip link add switch type bridge forward_delay 0 && "
                                                             "ip link set switch up");
    if (!hasSwitch) {
      GTEST_SKIP() << "needs the right to make network namespaces with a bridge, and the program ip";
    }
    mSwitch = OpenPresent();
    for (int machine = 0; machine < kMachines; ++machine) {
      ASSERT_EQ(unshare(CLONE_NEWNET), 0);
      mMachines.push_back(OpenPresent());
      const std::string number = std::to_string(machine + 1);
      Enter(mSwitch);
      std::ostringstream plug;
      plug << "ip link add port" << number << " type veth peer name adaptor netns /proc/" << getpid() << "/fd/"
           << mMachines.back() << " && ip link set port" << number << " master switch up";
      ASSERT_TRUE(Run(plug.str()));
      Enter(mMachines.back());
      ASSERT_TRUE(Run("ip link set lo up && ip addr add 10.79.0." + number +
                      "/24 broadcast + dev adaptor && ip link set adaptor up"));
    }
  }
  void TearDown() override {
    Enter(mHome);
    for (const int network : mMachines) {
      close(network);
    }
    close(mSwitch);
    close(mHome);
  }

  static std::string AddressOf(int machine) { return "10.79.0." + std::to_string(machine + 1); }
  /// What is started from now on runs on that machine.
  void EnterMachine(int machine) { Enter(mMachines.at(static_cast<std::size_t>(machine))); }
  void Readdress(int machine, const std::string& address) {
    EnterMachine(machine);
    ASSERT_TRUE(Run("ip addr flush dev adaptor && ip addr add " + address + "/24 broadcast + dev adaptor"));
  }
  void Plug(int machine, bool isIn) const {
    Enter(mSwitch);
    ASSERT_TRUE(Run("ip link set port" + std::to_string(machine + 1) + (isIn ? " up" : " down")));
  }

private:
  static int OpenPresent() { return open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC); }
  static void Enter(int network) { ASSERT_EQ(setns(network, CLONE_NEWNET), 0); }
  static bool Run(const std::string& command) { return std::system(command.c_str()) == 0; }

  int mHome = -1;
  int mSwitch = -1;
  std::vector<int> mMachines;
};

TEST_F(Bridged, ALinkOutlivesAPulledCableAndChangedAddresses) {
  EnterMachine(0);
  HostProcess master(HostProcess::OnOwnPorts({"host", "--master"}));
  master.Await({{"event", "ready"}, {"address", AddressOf(0)}});
  std::deque<HostProcess> satellites;
  for (const int machine : {1, 2}) {
    EnterMachine(machine);
    const std::string connect = machine == 1 ? "auto" : AddressOf(0);
    satellites.emplace_back(HostProcess::OnOwnPorts({"host", "--satellite", "--connect", connect}));
    satellites.back().Await({{"event", "linked"}, {"address", AddressOf(0)}});
  }
  EnterMachine(kMachines - 1);
  EXPECT_EQ(Discover({}), (std::set<std::string>{AddressOf(0), AddressOf(1), AddressOf(2)}));

  const std::int64_t pulled = Sys_Clock::RawMicroseconds();
  Plug(0, false);
  for (HostProcess& satellite : satellites) {
    ExpectWithin("loss noticed by satellite, us", TimeOf(satellite.Await({{"event", "lost"}})) - pulled,
                 kTimeToNoticeLoss);
    ExpectWithin("loss noticed by master, us", TimeOf(master.Await({{"event", "lost"}})) - pulled, kTimeToNoticeLoss);
  }
  const std::int64_t plugged = Sys_Clock::RawMicroseconds();
  Plug(0, true);
  for (HostProcess& satellite : satellites) {
    ExpectWithin("linked again, us", TimeOf(satellite.Await({{"event", "linked"}})) - plugged, kTimeToLink);
    EXPECT_EQ(Told(satellite, {{"event", "lost"}}).size(), 1U) << satellite.Text();
  }

  HostProcess& mover = satellites[0];
  mover.Command("control");
  master.Await({{"event", "control"}, {"address", AddressOf(1)}});
  const std::string changed = AddressOf(kMachines);
  Readdress(1, changed);
  mover.Await({{"event", "linked"}});
  master.Await({{"event", "linked"}, {"address", changed}});
  EXPECT_TRUE(Told(master, {{"event", "link_refused"}}).empty()) << master.Text();
  master.Await({{"event", "control"}, {"address", AddressOf(0)}}); // the lost holder was waited for

  mover.Command("control");
  const std::string moved = AddressOf(kMachines + 1);
  Readdress(0, moved);
  const Json lost = mover.Await({{"event", "lost"}});
  EXPECT_GE(TimeOf(master.Await({{"event", "control"}, {"address", moved}})), TimeOf(lost)) << "two had control";
}

} // namespace
