#include "tests/support/HostProcess.h"
#include "tests/support/TestSystem.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

using Json = HostProcess::Json;
using testing::HasSubstr;

class WatchProgram : public testing::Test {
protected:
  WatchProgram() {
    std::filesystem::create_directories(mDirectory);
    setenv("XDG_RUNTIME_DIR", mDirectory.c_str(), 1);
  }
  ~WatchProgram() override {
    unsetenv("XDG_RUNTIME_DIR");
    std::filesystem::remove_all(mDirectory);
  }

  static std::vector<std::string> Host(std::vector<std::string> role, const std::string& address) {
    role.insert(role.begin(), "host");
    role.insert(role.end(), {"--json", "--address", address, "--port", std::to_string(TestPort()), "--discovery-port",
                             std::to_string(TestPort() + 8'000)});
    return role;
  }

  const std::string mDirectory = testing::TempDir() + "trel_watch_" + std::to_string(getpid());
};

TEST_F(WatchProgram, ShowsBothSidesOfALinkAndTheEndOfTheHost) {
  HostProcess master(Host({"--master", "--name", "Stage"}, "127.0.8.2"));
  master.Await({{"event", "ready"}});
  HostProcess satellite(Host({"--satellite", "--name", "One", "--connect", "127.0.8.2"}, "127.0.8.3"));
  master.Command("wait linked 1");
  master.Command("wait locked");

  HostProcess atSatellite({"watch", "--once", "--json", "--address", "127.0.8.3"});
  Json own = atSatellite.Await({{"name", "One"}, {"linked", true}, {"in_control", "127.0.8.2"}});
  EXPECT_EQ(own["clock"]["locked"], true);
  EXPECT_TRUE(own["clock"]["error_bound_us"].is_number());
  EXPECT_NE(own["in_sync"], "no");
  EXPECT_EQ(atSatellite.End(), 0);

  HostProcess atMaster({"watch", "--once", "--json", "--pid", std::to_string(master.Id())});
  Json link = atMaster.Await({{"name", "Stage"}, {"in_sync", "yes"}});
  EXPECT_TRUE(link["clock"].is_null());
  ASSERT_EQ(link["systems"].size(), 2U);
  EXPECT_EQ(link["systems"][1]["name"], "One");
  EXPECT_EQ(link["systems"][1]["clock_locked"], true);
  EXPECT_EQ(atMaster.End(), 0);

  HostProcess watch({"watch", "--json", "--interval", "0.25", "--address", "127.0.8.3"});
  watch.Await({{"linked", true}});
  kill(master.Id(), SIGKILL);
  Json alone = watch.Await({{"linked", false}, {"verdict", "NOT LINKED"}});
  EXPECT_TRUE(std::any_of(alone["systems"].begin(), alone["systems"].end(),
                          [](const Json& system) { return system["name"] == "Stage"; }));
  EXPECT_EQ(satellite.End(), 0);
  EXPECT_EQ(watch.End(), 1);
  EXPECT_THAT(watch.Text(), HasSubstr("the host has ended: One"));

  HostProcess nobody({"watch", "--address", "127.0.8.2"}); // and no trace of the master that was killed
  EXPECT_EQ(nobody.End(), 1);
  EXPECT_TRUE(std::filesystem::is_empty(mDirectory + "/trel"));
}

} // namespace
