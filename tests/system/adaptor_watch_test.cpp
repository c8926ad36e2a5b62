#include <trel/SPSStartupOption.h>
#include <trel/Sys_Socket.h>
#include <trel/Sys_UDPSocket.h>

#include "tests/support/TestSystem.h"

#include <cstdlib>
#include <string>

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr std::uint32_t kFirst = 0x0a4d0001;    // 10.77.0.1
constexpr std::uint32_t kChanged = 0x0a4d0005;  // 10.77.0.5
constexpr std::uint32_t kExplicit = 0x0a4e0001; // 10.78.0.1
constexpr int kCannotRun = 77;

bool Configure(const std::string& commands) { return std::system(("set -e; " + commands).c_str()) == 0; }

/// A network of its own for this process, with two adaptors; the peer comes first in the list. Traffic between their
/// addresses stays in the machine.
bool EnterNetwork() {
  return unshare(CLONE_NEWNET) == 0 && Configure("ip link set lo up; ip link add two type veth peer name one;"
                                                 "ip addr add 10.77.0.1/24 dev one; ip link set one up;"
                                                 "ip addr add 10.78.0.1/24 dev two; ip link set two up");
}

bool MovesTo(TestSystem& system, std::uint32_t address) {
  return Eventually([&system, address] {
    system.DoIdle();
    return system.GetAdaptorIPAddress() == address;
  });
}

bool IsFound(TestSystem& asking, std::uint32_t address) {
  Sys_UDPSocket socket;
  std::int32_t wait = 1000;
  std::string text;
  std::uint32_t source = 0;
  ETCPE_SystemType type{};
  std::uint8_t version = 0;
  bool isAvailable = false;
  return socket.Register() && socket.Bind(asking.GetAdaptorIPAddress(), 0) && socket.AllocateReplyAddress() &&
         asking.SendDiscoverMasterSystemsCommand(&socket, address) &&
         asking.ReceiveDiscoverMasterSystemsReply(&socket, &wait, &text, &text, &source, &type, &version, &version,
                                                  &isAvailable) &&
         source == address;
}

void WatchAdaptors() {
  SPSSetStartupOption("DiscoveryPort", std::to_string(TestPort() + 8'000).c_str());
  TestSystem roaming(0), fixed(1);
  TCPE_CommPreferences anyAdaptor(0, TestPort());
  TCPE_CommPreferences oneAdaptor(kExplicit, TestPort());
  ASSERT_EQ(roaming.Initialize(&anyAdaptor, roaming.ErrorProc()), 0);
  EXPECT_EQ(roaming.GetInitializationReport(),
            "several adaptors could be used: 10.77.0.1 (one) was chosen before 10.78.0.1 (two)");
  ASSERT_EQ(fixed.Initialize(&oneAdaptor, fixed.ErrorProc()), 0);
  ASSERT_EQ(roaming.GetAdaptorIPAddress(), kFirst);
  ASSERT_TRUE(roaming.Connect(kExplicit));

  ASSERT_TRUE(Configure("ip addr del 10.77.0.1/24 dev one; ip addr add 10.77.0.5/24 dev one"));
  ASSERT_TRUE(MovesTo(roaming, kChanged));
  ASSERT_TRUE(Eventually([&] { return roaming.Count("error") == 1; }));
  EXPECT_FALSE(roaming.IsConnected(kExplicit));
  ASSERT_TRUE(roaming.Connect(kExplicit));
  ASSERT_TRUE(Eventually([&] { return !fixed.IsConnected(kFirst); }));
  EXPECT_EQ(fixed.GetConnectedAddresses(), std::set<std::uint32_t>{kChanged});
  ASSERT_TRUE(fixed.Query(kChanged) == eTCPE_CommErr_None && IsFound(fixed, kChanged));

  ASSERT_TRUE(Configure("ip link set two down"));
  ASSERT_TRUE(MovesTo(fixed, 0));
  ASSERT_TRUE(Eventually([&] { return fixed.Count("error 1") == 2; })); // lost the old connection, and this one
  EXPECT_TRUE(fixed.IsInitialized() && fixed.GetConnectedAddresses().empty());
  EXPECT_FALSE(fixed.Connect(kChanged));
  EXPECT_FALSE(IsFound(fixed, kChanged));

  ASSERT_TRUE(Configure("ip link set two up"));
  ASSERT_TRUE(MovesTo(fixed, kExplicit));
  EXPECT_TRUE(Eventually([&] { return IsFound(roaming, kExplicit); }));
  EXPECT_TRUE(fixed.Connect(kChanged));
}

TEST(AdaptorWatch, EnginesFollowTheirAdaptors) {
  const pid_t child = fork();
  if (child == 0) {
    if (!EnterNetwork()) {
      _exit(kCannotRun);
    }
    WatchAdaptors();
    _exit(testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == kCannotRun) {
    GTEST_SKIP() << "needs the right to make a network namespace, and the program ip";
  }
  EXPECT_EQ(WEXITSTATUS(status), EXIT_SUCCESS);
}

} // namespace
